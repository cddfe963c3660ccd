#pragma once
// The checks every value passes before it goes into a signed line: lengths against the
// device's capacities, characters that would break a line, overlay targets and links by
// the rules the device applies when it stages them, and the size of its overlay journal.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "keys.h"

namespace publish {

// Why a public key must not be given to devices (as a trusted or spare key, or in a key
// change); empty when it may. Asked of the device's own decoder: a key it cannot decode
// makes every signature fail, and a key of small order lets anyone forge signatures,
// since devices check the equation without the cofactor. The text follows "key ... ".
std::string public_key_problem(const PublicKey& key);
// The problem as a whole message, naming `what` and the key, or "" when there is none.
std::string public_key_refusal(const PublicKey& key, const std::string& what);
// Throws that message as an Error when there is one.
void check_public_key(const PublicKey& key, const std::string& what);

// Refuses an empty value and any control character (TAB and LF end a field or a line on
// the device, CR would become part of the value).
void check_field_text(std::string_view value, const std::string& what);
// Refuses a value longer than the device keeps.
void check_field_length(std::string_view value, std::size_t max, const std::string& what);
// A file name at the source: it becomes part of a download address and a file under
// /tmp/ota on the device, so only letters, digits and . _ + ~ - are allowed, it must not
// start with "." or hold "..", and must not be one of the source's own files.
void check_download_name(std::string_view name, std::size_t max, const std::string& what);
// At least seven and at most nineteen visible characters, no blanks, and no "sha=" (which
// would change how a device reads its pending record back). commit_problem says why a
// commit is refused (empty when it is not); check_commit throws it.
std::string commit_problem(std::string_view commit);
void check_commit(std::string_view commit);

// The target and link rules in words, without asking the device: why they refuse a target
// or a link, empty when they do not. The publisher's tests hold them against the
// device's own tests; the commands use target_problem and link_problem below.
std::string target_rule_problem(std::string_view target);
std::string link_rule_problem(std::string_view path, std::string_view target);

// Why a device would refuse an overlay target; empty when it is valid. The verdict is the
// device's own target test; a target holding a zero byte is refused as well, since the
// device would end it there.
std::string target_problem(std::string_view target);
// Why a device would refuse a link; empty when it is valid (the device's own link test).
std::string link_problem(std::string_view path, std::string_view target);

using LinkEntry = std::pair<std::string, std::string>;  // link path, link target

// The length of the overlay journal a device writes for these entries (file lines first,
// then link lines), throwing an Error naming the entry that would not fit.
std::size_t check_overlay_journal(const std::vector<std::string>& file_targets, const std::vector<LinkEntry>& links);

}  // namespace publish
