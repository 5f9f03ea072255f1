// Where the registry of this host is: in a file of its own, or in a database that other hosts' daemons serve, too.
#pragma once

#include <ctime>
#include <memory>
#include <string>

#include <server/registry/store.h>

namespace velia::server {

// From now on it is in this PostgreSQL database, for this process: before any thread asks for it. Empty: in its file.
void keep_registry_in(const std::string &conninfo);

bool is_registry_kept_in(const std::string &conninfo);
bool is_registry_read_on_in(const std::string &conninfo);
bool is_registry_shared();
std::string registry_database(); // its connection string; empty: it is in its file

// From now on what is read on may be read of this replica of such a database. Empty: of none.
void read_registry_on_in(const std::string &conninfo);

// Whether what is read while such a database is away comes from the last copy of it, which this host keeps then.
void read_registry_from_copy(bool is_wanted);
bool is_registry_copied();

// The copy of this database; null where there is none. A listing that began at the database does not go on in it.
std::unique_ptr<Store> copy_of_shared_registry();
time_t time_of_copy(Store &copy); // when it became other than it was

// Makes the copy what the database is, where it is not. Throws StoreError.
void copy_shared_registry();

// For messages: the file's name, or what of the database is no secret.
std::string registry_place();

// The file, whether the registry is there or not.
std::string registry_file();

// Opens it, and makes it where none ever was. Throws StoreError.
std::unique_ptr<Store> open_registry(bool &is_new);

// Null where there is none in the host's file. Not for a file that this process has open already.
std::unique_ptr<Store> existing_registry();

} // namespace velia::server
