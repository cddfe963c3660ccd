#pragma once
// The one door to the kernel. Every system call of the program passes through the
// inline wrappers here; this is also the only file of the program that contains asm.
// Results follow the kernel's convention: a value from -4095 to -1 is a negated error
// number, everything else is a success.

#include <stdint.h>

#include "tavi_abi.h"

#ifdef OTA_HOST_BUILD
#include <errno.h>
#endif

namespace ota {

using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using u64 = uint64_t;
using i64 = int64_t;
using usize = decltype(sizeof(0));

// Ordinary calls, with the x86-64 Linux numbers.
constexpr u64 kSysRead = 0;
constexpr u64 kSysWrite = 1;
constexpr u64 kSysOpen = 2;
constexpr u64 kSysClose = 3;
constexpr u64 kSysStat = 4;
constexpr u64 kSysLseek = 8;
constexpr u64 kSysDup2 = 33;
constexpr u64 kSysNanosleep = 35;
constexpr u64 kSysGetpid = 39;
constexpr u64 kSysFork = 57;
constexpr u64 kSysExit = 60;
constexpr u64 kSysWait4 = 61;
constexpr u64 kSysRename = 82;
constexpr u64 kSysMkdir = 83;
constexpr u64 kSysLink = 86;
constexpr u64 kSysUnlink = 87;
constexpr u64 kSysChmod = 90;
constexpr u64 kSysSync = 162;
constexpr u64 kSysMount = 165;
constexpr u64 kSysUmount2 = 166;
constexpr u64 kSysReboot = 169;

// The tavi kernel's own calls (spawn, system_info, task_info, end_task, fs_grow, notify)
// and their selectors are in tavi_abi.h, shared with the simulator that answers them.

// Open flags the program uses, and nothing else.
constexpr u64 kOpenRead = 0;
constexpr u64 kOpenReadWrite = 2;
constexpr u64 kOpenCreate = 577;  // write-only, create, truncate

constexpr bool is_error(u64 r) { return r >= static_cast<u64>(-4095); }

// The program-wide error number kept by the wrappers that return -1.
extern i64 last_error;

#ifdef OTA_HOST_BUILD
// The host build serves the unit tests. A test process must never mount, unmount or
// restart the machine it runs on, and Linux does not know the tavi numbers, so these
// calls are refused before they reach the kernel.
constexpr bool call_is_refused(u64 n) {
  return n == kSysMount || n == kSysUmount2 || n == kSysReboot || n >= TAVI_SPAWN;
}
#define OTA_REFUSE(n) \
  if (call_is_refused(n)) return static_cast<u64>(-ENOSYS)
#else
#define OTA_REFUSE(n)
#endif

inline u64 syscall(u64 n) {
  OTA_REFUSE(n);
  u64 r;
  asm volatile("syscall" : "=a"(r) : "a"(n) : "rcx", "r11", "memory");
  return r;
}
inline u64 syscall(u64 n, u64 a) {
  OTA_REFUSE(n);
  u64 r;
  asm volatile("syscall" : "=a"(r) : "a"(n), "D"(a) : "rcx", "r11", "memory");
  return r;
}
inline u64 syscall(u64 n, u64 a, u64 b) {
  OTA_REFUSE(n);
  u64 r;
  asm volatile("syscall" : "=a"(r) : "a"(n), "D"(a), "S"(b) : "rcx", "r11", "memory");
  return r;
}
inline u64 syscall(u64 n, u64 a, u64 b, u64 c) {
  OTA_REFUSE(n);
  u64 r;
  asm volatile("syscall" : "=a"(r) : "a"(n), "D"(a), "S"(b), "d"(c) : "rcx", "r11", "memory");
  return r;
}
inline u64 syscall(u64 n, u64 a, u64 b, u64 c, u64 d, u64 e) {
  OTA_REFUSE(n);
  u64 r;
  register u64 r10 asm("r10") = d;
  register u64 r8 asm("r8") = e;
  asm volatile("syscall"
               : "=a"(r)
               : "a"(n), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8)
               : "rcx", "r11", "memory");
  return r;
}

#undef OTA_REFUSE

template <typename T>
inline u64 word(T* p) {
  return reinterpret_cast<u64>(p);
}

// Wrappers that keep the error number and answer -1 on failure.
inline i64 keep_error(u64 r) {
  if (is_error(r)) {
    last_error = -static_cast<i64>(r);
    return -1;
  }
  return static_cast<i64>(r);
}
inline i64 sys_read(int fd, void* buf, u64 n) { return keep_error(syscall(kSysRead, fd, word(buf), n)); }
inline i64 sys_write(int fd, const void* buf, u64 n) {
  return keep_error(syscall(kSysWrite, fd, word(buf), n));
}
inline i64 sys_close(int fd) { return keep_error(syscall(kSysClose, fd)); }

// The x86-64 status record is 144 bytes; only the size at byte 48 is used.
constexpr usize kStatRecordBytes = 144;
constexpr usize kStatSizeOffset = 48;
inline i64 sys_stat(const char* path, void* record);

#ifdef OTA_HOST_BUILD
// Unit tests and fuzz targets run the device code on the host against a scratch
// directory: when a root is set, every absolute path is taken below it. The device
// program has no such thing; its paths go to the kernel as they are.
extern char host_root[256];
const char* host_path(const char* path, char* buffer);
#define OTA_PATH(p, buffer) host_path(p, buffer)
#define OTA_PATH_BUFFER(buffer) char buffer[512]
#else
#define OTA_PATH(p, buffer) (p)
#define OTA_PATH_BUFFER(buffer)
#endif

// Raw calls: the caller tests the result with is_error.
inline u64 sys_open(const char* path, u64 flags) {
  OTA_PATH_BUFFER(b);
  return syscall(kSysOpen, word(OTA_PATH(path, b)), flags, 0);
}
inline u64 sys_lseek(int fd, u64 offset) { return syscall(kSysLseek, fd, offset, 0); }
inline u64 sys_dup2(int from, int to) { return syscall(kSysDup2, from, to); }
inline u64 sys_getpid() { return syscall(kSysGetpid); }
inline u64 sys_fork() { return syscall(kSysFork); }
[[noreturn]] inline void sys_exit(u64 status) {
  for (;;) syscall(kSysExit, status);
}
inline u64 sys_wait4(u64 pid, int* status) { return syscall(kSysWait4, pid, word(status), 0, 0, 0); }
inline u64 sys_rename(const char* from, const char* to) {
  OTA_PATH_BUFFER(a);
  OTA_PATH_BUFFER(b);
  return syscall(kSysRename, word(OTA_PATH(from, a)), word(OTA_PATH(to, b)));
}
inline u64 sys_mkdir(const char* path) {
  OTA_PATH_BUFFER(b);
  return syscall(kSysMkdir, word(OTA_PATH(path, b)), 0);
}
inline u64 sys_link(const char* from, const char* to) {
  OTA_PATH_BUFFER(a);
  OTA_PATH_BUFFER(b);
  return syscall(kSysLink, word(OTA_PATH(from, a)), word(OTA_PATH(to, b)));
}
inline u64 sys_unlink(const char* path) {
  OTA_PATH_BUFFER(b);
  return syscall(kSysUnlink, word(OTA_PATH(path, b)));
}
inline u64 sys_chmod(const char* path, u64 mode) {
  OTA_PATH_BUFFER(b);
  return syscall(kSysChmod, word(OTA_PATH(path, b)), mode);
}
inline u64 sys_sync() { return syscall(kSysSync); }
inline i64 sys_stat(const char* path, void* record) {
  OTA_PATH_BUFFER(b);
  return keep_error(syscall(kSysStat, word(OTA_PATH(path, b)), word(record)));
}
inline u64 sys_mount(const char* device, const char* target, const char* type) {
  return syscall(kSysMount, word(device), word(target), word(type), 0, 0);
}
inline u64 sys_umount2(const char* target) { return syscall(kSysUmount2, word(target), 0); }
inline u64 sys_reboot(u64 command) { return syscall(kSysReboot, command, 0, 0); }
inline u64 sys_spawn(const char* path, const char* const* words, u64 count) {
  return syscall(TAVI_SPAWN, word(path), word(words), count);
}
inline u64 sys_system_info(u64 selector) { return syscall(TAVI_SYSTEM_INFO, selector, 0, 0); }
inline u64 sys_task_info(u64 slot, u64 field) { return syscall(TAVI_TASK_INFO, slot, field, 0); }
inline u64 sys_end_task(u64 pid, u64 status) { return syscall(TAVI_END_TASK, pid, status, 0); }
inline u64 sys_fs_grow(u64 operation, u64 argument) { return syscall(TAVI_FS_GROW, operation, argument, 0, 0, 0); }
inline u64 sys_notify(const char* text, u64 length) {
  return syscall(TAVI_NOTIFY, TAVI_NOTIFY_POST, TAVI_NOTIFY_POST_WORD, word(text), length, 0);
}

struct SleepRequest {
  i64 seconds;
  i64 nanoseconds;
};
inline u64 sys_nanosleep(const SleepRequest* request) { return syscall(kSysNanosleep, word(request), 0); }

// Processor features, asked of the processor itself (cpuid leaf 7, sub-leaf 0, and
// leaf 1). Returns ebx of leaf 7 in the low half and ecx of leaf 1 in the high half.
inline u64 cpu_feature_bits() {
  u32 a, b, c, d;
  asm volatile("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(0), "c"(0));
  if (a < 7) return 0;
  u32 leaf7_b;
  asm volatile("cpuid" : "=a"(a), "=b"(leaf7_b), "=c"(c), "=d"(d) : "a"(7), "c"(0));
  u32 leaf1_c;
  asm volatile("cpuid" : "=a"(a), "=b"(b), "=c"(leaf1_c), "=d"(d) : "a"(1), "c"(0));
  return static_cast<u64>(leaf7_b) | (static_cast<u64>(leaf1_c) << 32);
}
constexpr u64 kCpuSha = 1ull << 29;           // leaf 7 ebx bit 29: SHA extensions
constexpr u64 kCpuSse41 = 1ull << (32 + 19);  // leaf 1 ecx bit 19
constexpr u64 kCpuSsse3 = 1ull << (32 + 9);   // leaf 1 ecx bit 9
constexpr u64 kCpuPclmul = 1ull << (32 + 1);  // leaf 1 ecx bit 1

}  // namespace ota

#ifdef OTA_ENTRY_POINT
// The kernel starts the program with the argument block at the stack pointer: a 64-bit
// count, then the addresses of the words. The entry hands that address on with the stack
// aligned as the calling convention wants it.
asm(".text\n"
    ".global _start\n"
    "_start:\n"
    "  xor %ebp, %ebp\n"
    "  mov %rsp, %rdi\n"
    "  and $-16, %rsp\n"
    "  call ota_entry\n"
    "  hlt\n");
#endif
