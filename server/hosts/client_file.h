// The client list on disk: written by the library's writer into a new file that takes the old one's place, and read
// line by line. A line that is not understood is told and passed over; the others count.
#pragma once

#include <string>
#include <string_view>

#include <server/hosts/client_list.h>

namespace velia::server {

// What is wrong with a line, if anything.
enum class LineFault { none, invalid_entry, invalid_address, duplicate_address };

LineFault parse_client_line(std::string_view line, ListedHost &client);

// Enters what the file says. A missing file is an empty list, and one of another version is not read; nor is one that
// is no regular file, or larger than any that is written, which is told and never waited for. What a file of another
// version says is not known, and so the list is withheld from then on, and never written over it.
void read_client_file(const std::string &file_name, ClientList &list);

// Writes the list if it has changed, and keeps the file before it with ".old" behind its name. False, and told, when
// that fails; the current file is then as it was.
bool write_client_file(const std::string &file_name, ClientList &list);

} // namespace velia::server
