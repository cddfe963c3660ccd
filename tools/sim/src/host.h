#pragma once
// Small host-side helpers of the simulator: whole-file reads and writes, directory trees,
// SHA-256, and running helper programs (mtools, curl, configured outside programs).

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tavisim/config.h"

namespace tavisim {

std::optional<std::string> read_host_file(const std::string& path);
void write_host_file(const std::string& path, std::string_view data, mode_t mode = 0644);
// Writes PATH.nw and renames it over path, so that a simulator ended halfway leaves the old
// file whole rather than half a new one. Throws as write_host_file does; false when only
// the rename failed.
bool replace_host_file(const std::string& path, std::string_view data);
bool host_exists(const std::string& path);
bool host_is_dir(const std::string& path);
void make_host_dirs(const std::string& path);
void remove_host_tree(const std::string& path);
std::string join_path(std::string_view a, std::string_view b);
std::string parent_of(const std::string& path);

// Every entry below `base`, as paths relative to it ("a", "a/b"); directories end up in
// `dirs`, regular files in `files`. Entries whose relative path is in `skip` (and all
// below them) are left out. Symbolic links and other kinds are reported in `others`.
struct TreeListing {
  std::vector<std::string> dirs;
  std::vector<std::string> files;
  std::vector<std::string> others;
};
TreeListing list_tree(const std::string& base, const std::vector<std::string>& skip = {});

// Bytes the tree holds on disk (allocated blocks).
uint64_t tree_bytes(const std::string& base);

std::string sha256_hex(std::string_view data);
// splitmix64's mixing of a and the b-th step: the n-th draw of a generator seeded with a is
// mix64(a, n), the same on every host whatever else the simulator does.
uint64_t mix64(uint64_t a, uint64_t b);
// A number as the device's number files hold it: eight zero-padded digits (the lowest eight
// of a larger one).
std::string eight_digits(uint64_t v);
// Whether sig (64 bytes) is an Ed25519 signature of message under key (32 bytes), by
// libcrypto.
bool ed25519_verifies(std::string_view key, std::string_view message, std::string_view sig);

// Runs a helper program to its end. argv[0] is looked up in PATH. Output is captured
// when the pointers are given, otherwise discarded. Returns the exit code, or -1 when
// the program could not be started or was ended by a signal.
struct ToolRun {
  std::string file;  // the executable; empty: argv[0], looked up in PATH
  std::vector<std::string> argv;
  std::vector<std::string> extra_env;  // "KEY=VALUE" added to the simulator's environment
  std::string cwd;
  int stdout_fd = -1;  // when >= 0: becomes the program's standard output (not captured)
  int stderr_fd = -1;
  std::string* out = nullptr;
  std::string* err = nullptr;
};
int run_tool(const ToolRun& run);
// Starts a helper without waiting; the caller waits for the returned pid.
pid_t start_tool(const ToolRun& run, int* out_pipe, int* err_pipe);

// Text escape used in events.log fields: backslash, TAB, LF and CR become \\, \t, \n, \r.
std::string escape_field(std::string_view s);
std::string unescape_field(std::string_view s);

std::vector<std::string> split_words(std::string_view line);
// The fields of a tab-separated line; a line without a TAB is one field.
std::vector<std::string> tab_fields(std::string_view line);
// The lines of a text without their ends (LF, or CR LF).
std::vector<std::string> text_lines(std::string_view text);
std::string trim(std::string_view s);
bool parse_i64(std::string_view s, int64_t& out);
bool parse_u64(std::string_view s, uint64_t& out);
bool parse_seconds(std::string_view s, int64_t& ns);  // "12", "2.5", "0.001"
std::string format_seconds_ms(int64_t ns);            // "12.500"

}  // namespace tavisim
