#pragma once
// Whole-file reading and writing, the safe replacement of records, fixed-width number
// files, and the line and key lookups over a text held in memory.

#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

i64 read_file(const char* path, void* buf, usize cap);
bool write_file(const char* path, const void* data, usize n);
bool replace_file(const char* path, const void* data, usize n);
// read_file for a file kept with replace_file: when the file is missing but its temporary
// file is there, the interrupted replacement is finished first.
i64 read_replaced_file(const char* path, void* buf, usize cap);
bool overwrite_in_place(const char* path, const void* data, usize n);
u64 read_number_file(const char* path);
bool write_number_file(const char* path, u64 v);
// The last eight decimal digits of v, zero-padded, into out[0..7] (no closing 0): the
// form of every number file and of the records that carry versions and generations.
void format_eight_digits(char* out, u64 v);
u64 file_size(const char* path);
void remove_file(const char* path);
void make_directory(const char* path);
void work_path(char* out, const char* name);
void make_work_dir();
// Writes all n bytes to an open descriptor; false when a write failed or wrote nothing.
bool write_fd_all(int fd, const void* data, usize n);
// Whether the path can be opened for reading.
bool file_exists(const char* path);

const char* find_line(const char* text, usize len, const char* prefix);
// True when the key's value is not empty; out gets it, cut to cap - 1 bytes.
bool value_of(const char* text, usize len, const char* key, char* out, usize cap);
u64 number_of(const char* text, usize len, const char* key, u64 fallback);

}  // namespace ota
