#include "runtime/files.h"

#include "runtime/text.h"

namespace ota {

i64 read_file(const char* path, void* buf, usize cap) {
  u64 fd = sys_open(path, kOpenRead);
  if (is_error(fd)) return -1;
  u8* p = static_cast<u8*>(buf);
  usize got = 0;
  while (got < cap) {
    i64 r = sys_read(static_cast<int>(fd), p + got, cap - got);
    if (r <= 0) break;  // end of file, or a failing read: what came so far counts
    got += static_cast<usize>(r);
  }
  sys_close(static_cast<int>(fd));
  return static_cast<i64>(got);
}

bool write_fd_all(int fd, const void* data, usize n) {
  const u8* p = static_cast<const u8*>(data);
  usize done = 0;
  while (done < n) {
    i64 w = sys_write(fd, p + done, n - done);
    if (w <= 0) return false;
    done += static_cast<usize>(w);
  }
  return true;
}

bool write_file(const char* path, const void* data, usize n) {
  u64 fd = sys_open(path, kOpenCreate);
  if (is_error(fd)) return false;
  bool ok = write_fd_all(static_cast<int>(fd), data, n);
  sys_close(static_cast<int>(fd));
  return ok;
}

namespace {

// The temporary name of a replacement, path with ".nw" appended; one static buffer, so only
// one replacement is in progress at a time.
char temporary[kReplacePathLimit + 4];

// Null for a path too long (or empty) to have one: such a file is written directly.
[[gnu::noinline]] const char* temporary_name(const char* path) {
  usize len = str_len(path);
  if (len == 0 || len >= kReplacePathLimit) return nullptr;
  str_append_at(temporary, str_copy(temporary, path), ".nw");
  return temporary;
}

}  // namespace

i64 read_replaced_file(const char* path, void* buf, usize cap) {
  i64 n = read_file(path, buf, cap);
  // Only a replacement cut short between the removal of the old file and the rename of the
  // new one leaves the temporary file without the file: that rename is finished here.
  if (n < 0) {
    const char* temporary_path = temporary_name(path);
    if (temporary_path && !is_error(sys_rename(temporary_path, path))) n = read_file(path, buf, cap);
  }
  return n;
}

bool replace_file(const char* path, const void* data, usize n) {
  if (const char* temporary_path = temporary_name(path)) {
    remove_file(temporary_path);
    if (!write_file(temporary_path, data, n)) {
      remove_file(temporary_path);
      return false;
    }
    // The kernel's rename does not replace an existing file, so the target goes first.
    remove_file(path);
    if (!is_error(sys_rename(temporary_path, path))) return true;
    remove_file(temporary_path);
  }
  remove_file(path);
  return write_file(path, data, n);
}

bool overwrite_in_place(const char* path, const void* data, usize n) {
  u64 fd = sys_open(path, kOpenReadWrite);
  if (is_error(fd)) fd = sys_open(path, kOpenCreate);
  if (is_error(fd)) return false;
  bool ok = false;
  if (!is_error(sys_lseek(static_cast<int>(fd), 0))) ok = write_fd_all(static_cast<int>(fd), data, n);
  sys_close(static_cast<int>(fd));
  sys_sync();
  return ok;
}

u64 read_number_file(const char* path) {
  char buf[kNumberFileReadBytes];
  i64 n = read_file(path, buf, sizeof buf);
  if (n < static_cast<i64>(kStoredDigits)) return 0;
  u64 v = 0;
  for (int i = 0; i < static_cast<int>(kStoredDigits); i++) {
    if (buf[i] < '0' || buf[i] > '9') return 0;
    v = v * 10 + static_cast<u64>(buf[i] - '0');
  }
  return v;
}

void format_eight_digits(char* out, u64 v) {
  v %= kStoredNumberModulus;
  for (int i = 7; i >= 0; i--) {
    out[i] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
}

bool write_number_file(const char* path, u64 v) {
  char buf[kStoredDigits + 1];
  format_eight_digits(buf, v);
  buf[kStoredDigits] = '\n';
  return overwrite_in_place(path, buf, sizeof buf);
}

u64 file_size(const char* path) {
  alignas(8) u8 record[kStatRecordBytes];
  if (sys_stat(path, record) < 0) return 0;
  u64 size;
  mem_copy(&size, record + kStatSizeOffset, sizeof size);
  return size;
}

void remove_file(const char* path) { sys_unlink(path); }

void make_directory(const char* path) { sys_mkdir(path); }

void work_path(char* out, const char* name) {
  usize len = str_copy(out, kWorkDir);
  len = str_append_at(out, len, "/");
  str_append_at(out, len, name);
}

void make_work_dir() { make_directory(kWorkDir); }

bool file_exists(const char* path) {
  u64 fd = sys_open(path, kOpenRead);
  if (is_error(fd)) return false;
  sys_close(static_cast<int>(fd));
  return true;
}

const char* find_line(const char* text, usize len, const char* prefix) {
  usize plen = str_len(prefix);
  for (usize i = 0; i < len; i++) {
    if (i != 0 && text[i - 1] != '\n') continue;
    // A prefix that runs past the text cannot match: the text's closing 0 differs first.
    if (i + plen <= len && mem_equal(text + i, prefix, plen)) return text + i;
  }
  return nullptr;
}

bool value_of(const char* text, usize len, const char* key, char* out, usize cap) {
  if (len == 0) return false;
  usize klen = str_len(key);
  usize i = 0;
  for (;; i++) {
    if (i >= len) return false;
    if (i != 0 && text[i - 1] != '\n') continue;
    if (i + klen <= len && mem_equal(text + i, key, klen)) break;
  }
  usize v = i + klen;
  if (v >= len) {
    if (cap > 0) out[0] = 0;
    return false;
  }
  usize n = 0;
  while (v + n < len && n + 1 < cap && text[v + n] != '\n' && text[v + n] != '\r') {
    out[n] = text[v + n];
    n++;
  }
  if (cap > 0) out[n] = 0;
  return n > 0;
}

u64 number_of(const char* text, usize len, const char* key, u64 fallback) {
  char value[kNumberValueBytes];
  if (!value_of(text, len, key, value, sizeof value)) return fallback;
  return parse_decimal(value);
}

}  // namespace ota

#ifdef OTA_HOST_BUILD
namespace ota {

char host_root[256];

const char* host_path(const char* path, char* buffer) {
  if (host_root[0] == 0 || path[0] != '/') return path;
  usize len = str_copy(buffer, host_root);
  str_copy(buffer + len, path);
  return buffer;
}

}  // namespace ota
#endif
