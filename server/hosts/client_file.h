// The client list on disk: written by the library's writer into a new file that takes the old one's place, and read
// line by line. A line that is not understood is told and passed over; the others count. A few clients are saved at the
// cost of a few: as lines of a journal, which seldom becomes part of the file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <server/hosts/client_list.h>

namespace velia::server {

// What is wrong with a line, if anything.
enum class LineFault { none, invalid_entry, invalid_address, duplicate_address };

LineFault parse_client_line(std::string_view line, ListedHost &client);

// What has been saved since the file was written whole stands behind it, in a journal; the one that is being worked
// into it, in that journal's predecessor. A line of a later one counts in place of one of an earlier one.
std::string journal_of(const std::string &file_name);
std::string former_journal_of(const std::string &file_name);

// Enters what the file and its journals say, and gives how many lines the journals have. A missing file is an empty
// list, and one of another version is not read; nor is one that is no regular file, or larger than any that is written,
// which is told and never waited for. What a file of another version says is not known, and so the list is withheld
// from then on, and never written over it.
size_t read_client_file(const std::string &file_name, ClientList &list);

// Adds to the journal, and has it on disk; 0, or the errno value of what failed. The journal is then as it was.
int add_to_client_journal(const std::string &file_name, const std::vector<ListedHost> &clients);

// Writes file and journals anew as one file, and keeps the file before it with ".old" behind its name. False, and told,
// when that fails; file and journals then say what they said.
bool join_client_files(const std::string &file_name);

} // namespace velia::server
