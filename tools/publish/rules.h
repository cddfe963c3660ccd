#pragma once
// The checks every value passes before it goes into a signed line: lengths against the
// device's capacities, characters that would break a line, overlay targets and links by
// the rules the device applies when it stages them, and the size of its overlay journal.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace publish {

// Refuses an empty value and any control character (TAB and LF end a field or a line on
// the device, CR would become part of the value).
void check_field_text(std::string_view value, const std::string& what);
// Refuses a value longer than the device keeps.
void check_field_length(std::string_view value, std::size_t max, const std::string& what);
// A file name at the source: it becomes part of a download address and a file under
// /tmp/ota on the device, so only letters, digits and . _ + ~ - are allowed, it must not
// start with "." and must not be one of the source's own files.
void check_download_name(std::string_view name, std::size_t max, const std::string& what);
// At least seven and at most nineteen visible characters, no blanks.
void check_commit(std::string_view commit);

// Why a device would refuse an overlay target; empty when it is valid.
std::string target_problem(std::string_view target);
// Why a device would refuse a link; empty when it is valid.
std::string link_problem(std::string_view path, std::string_view target);

using LinkEntry = std::pair<std::string, std::string>;  // link path, link target

// The length of the overlay journal a device writes for these entries (file lines first,
// then link lines), throwing an Error naming the entry that would not fit.
std::size_t check_overlay_journal(const std::vector<std::string>& file_targets, const std::vector<LinkEntry>& links);

}  // namespace publish
