// Where the registry of this host is: in a file of its own, or in a database that other hosts' daemons serve, too.
#pragma once

#include <memory>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

// From now on it is in this PostgreSQL database, for this process: before any thread asks for it. Empty: in its file.
void keep_registry_in(const std::string &conninfo);

bool is_registry_kept_in(const std::string &conninfo);
bool is_registry_shared();

// For messages: the file's name, or what of the database is no secret.
std::string registry_place();

// The file, whether the registry is there or not.
std::string registry_file();

// Opens it, and makes it where none ever was. Throws StoreError.
std::unique_ptr<Store> open_registry(bool &is_new);

// Null where there is none in the host's file. Not for a file that this process has open already.
std::unique_ptr<Store> existing_registry();

} // namespace velia::server
