/* tavisim-probe: a probe of the SIMULATOR, not a test of ota.
 *
 * A tiny static program without a C library that makes the kernel calls the simulator
 * answers (spawn, wait4, task table, end_task, sleeps, reboot, mount, grow, notify, ...)
 * in exactly the form the device program makes them, and prints each raw result. The
 * simulator's own tests (tests/sim/sim_probe_test.cpp) install it as the
 * device's /bin/ota to check the kernel model for calls that no ota command makes yet.
 *
 * Words: commands separated by ",", e.g.  mount /dev/sda1 /sysesp vfat , umount /sysesp
 */

#include "tavi_abi.h"

typedef unsigned long u64;
typedef long i64;

static i64 sys6(i64 n, i64 a, i64 b, i64 c, i64 d, i64 e) {
  i64 r;
  register i64 r10 __asm__("r10") = d;
  register i64 r8 __asm__("r8") = e;
  __asm__ volatile("syscall" : "=a"(r) : "a"(n), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8) : "rcx", "r11", "memory");
  return r;
}
static i64 sys3(i64 n, i64 a, i64 b, i64 c) { return sys6(n, a, b, c, 0, 0); }

__asm__(".text\n.global _start\n_start:\n  xor %ebp, %ebp\n  mov %rsp, %rdi\n  and $-16, %rsp\n"
        "  call probe_main\n  mov %rax, %rdi\n  mov $60, %eax\n  syscall\n  hlt\n");

void* memset(void* d, int c, u64 n) {
  unsigned char* p = d;
  while (n--) *p++ = (unsigned char)c;
  return d;
}
void* memcpy(void* d, const void* s, u64 n) {
  unsigned char* p = d;
  const unsigned char* q = s;
  while (n--) *p++ = *q++;
  return d;
}

static u64 len(const char* s) {
  u64 n = 0;
  while (s[n]) n++;
  return n;
}
static int eq(const char* a, const char* b) {
  while (*a && *a == *b) a++, b++;
  return *a == *b;
}
static void out(const char* s) { sys3(1, 1, (i64)s, (i64)len(s)); }
static void out_num(i64 v) {
  char buf[24];
  int i = 23;
  buf[i] = 0;
  u64 u = v < 0 ? (u64)(-v) : (u64)v;
  do {
    buf[--i] = (char)('0' + u % 10);
    u /= 10;
  } while (u);
  if (v < 0) buf[--i] = '-';
  out(buf + i);
}
static i64 num(const char* s) {
  i64 v = 0, sign = 1;
  if (*s == '-') sign = -1, s++;
  if (s[0] == '0' && s[1] == 'x') {
    for (s += 2; *s; s++) v = v * 16 + (*s <= '9' ? *s - '0' : (*s | 32) - 'a' + 10);
    return v * sign;
  }
  for (; *s >= '0' && *s <= '9'; s++) v = v * 10 + (*s - '0');
  return v * sign;
}
/* One result line, "label value", written with a single call so that the calls of a
   command are easy to count. */
static void line(const char* label, i64 v) {
  char buf[64];
  u64 n = 0;
  while (label[n] && n < 32) buf[n] = label[n], n++;
  buf[n++] = ' ';
  char digits[24];
  int i = 24;
  u64 u = v < 0 ? (u64)(-v) : (u64)v;
  do {
    digits[--i] = (char)('0' + u % 10);
    u /= 10;
  } while (u);
  if (v < 0) buf[n++] = '-';
  while (i < 24) buf[n++] = digits[i++];
  buf[n++] = '\n';
  sys3(1, 1, (i64)buf, (i64)n);
}

static u64 pack8(const char* name) {
  u64 p = 0;
  for (int i = 0; i < 8 && name[i]; i++) p |= (u64)(unsigned char)name[i] << (8 * i);
  return p;
}
static int is_error(i64 r) { return (u64)r >= (u64)-4095; }
static int live(i64 slot) {
  i64 s = sys3(TAVI_TASK_INFO, slot, TAVI_TASK_STATE, 0);
  return !is_error(s) && s != TAVI_TASK_FREE && s != TAVI_TASK_ENDED;
}

/* One command starting at word w[0], n words. */
static void run(char** w, int n) {
  const char* c = w[0];
  if (eq(c, "spawn") && n >= 2) {
    i64 id = sys3(TAVI_SPAWN, (i64)w[1], (i64)(w + 1), n - 1);
    line("spawn", id);
    if (!is_error(id)) {
      int status = 0x7f7f;
      i64 r = sys6(61, id, (i64)&status, 0, 0, 0);
      line("wait", r == id ? 0 : r);
      line("code", (status >> 8) & 255);
    }
  } else if (eq(c, "spawn-count") && n >= 3) {
    /* spawn with an explicit count, to show that words beyond it are not read */
    line("spawn", sys3(TAVI_SPAWN, (i64)w[2], (i64)(w + 2), num(w[1])));
  } else if (eq(c, "wait") && n >= 2) {
    int status = 0;
    line("wait", sys6(61, num(w[1]), (i64)&status, 0, 0, 0));
  } else if (eq(c, "info") && n >= 2) {
    line("info", sys3(TAVI_SYSTEM_INFO, num(w[1]), 0, 0));
  } else if (eq(c, "task") && n >= 3) {
    line("task", sys3(TAVI_TASK_INFO, num(w[1]), num(w[2]), 0));
  } else if ((eq(c, "tasks32") || eq(c, "tasks128")) && n >= 1) {
    i64 slots = eq(c, "tasks32") ? 32 : 128;
    for (i64 s = 0; s < slots; s++) {
      if (!live(s)) continue;
      u64 words[2] = {(u64)sys3(TAVI_TASK_INFO, s, TAVI_TASK_NAME_LOW, 0), (u64)sys3(TAVI_TASK_INFO, s, TAVI_TASK_NAME_HIGH, 0)};
      char name[17];
      for (int i = 0; i < 16; i++) name[i] = (char)((words[i / 8] >> (8 * (i % 8))) & 255);
      name[16] = 0;
      out("slot ");
      out_num(s);
      out(" state ");
      out_num(sys3(TAVI_TASK_INFO, s, TAVI_TASK_STATE, 0));
      out(" pid ");
      out_num(sys3(TAVI_TASK_INFO, s, TAVI_TASK_PID, 0));
      out(" name ");
      out(name);
      out("\n");
    }
  } else if (eq(c, "named") && n >= 2) {
    /* the health check's scan: 32 slots, first 8 bytes */
    u64 want = pack8(w[1]);
    int found = 0;
    for (i64 s = 0; s < 32 && !found; s++)
      if (live(s) && (u64)sys3(TAVI_TASK_INFO, s, TAVI_TASK_NAME_LOW, 0) == want) found = 1;
    line("named", found);
  } else if (eq(c, "endname") && n >= 2) {
    /* the scan that ends tasks: 128 slots, the whole 16-byte name */
    i64 ended = 0;
    for (i64 s = 0; s < 128; s++) {
      if (!live(s)) continue;
      u64 words[2] = {(u64)sys3(TAVI_TASK_INFO, s, TAVI_TASK_NAME_LOW, 0), (u64)sys3(TAVI_TASK_INFO, s, TAVI_TASK_NAME_HIGH, 0)};
      char name[17];
      for (int i = 0; i < 16; i++) name[i] = (char)((words[i / 8] >> (8 * (i % 8))) & 255);
      name[16] = 0;
      if (!eq(name, w[1])) continue;
      if (!is_error(sys3(TAVI_END_TASK, sys3(TAVI_TASK_INFO, s, TAVI_TASK_PID, 0), 137, 0))) ended++;
    }
    line("ended", ended);
  } else if (eq(c, "end") && n >= 3) {
    line("end", sys3(TAVI_END_TASK, num(w[1]), num(w[2]), 0));
  } else if (eq(c, "sleep") && n >= 2) {
    i64 ms = num(w[1]);
    i64 req[2] = {ms / 1000, (ms % 1000) * 1000000};
    line("sleep", sys3(35, (i64)req, 0, 0));
  } else if (eq(c, "sleepraw") && n >= 3) {
    i64 req[2] = {num(w[1]), num(w[2])};
    line("sleep", sys3(35, (i64)req, 0, 0));
  } else if (eq(c, "reboot")) {
    line("reboot", sys3(169, n >= 2 ? num(w[1]) : TAVI_RESTART, 0, 0));
  } else if (eq(c, "mount") && n >= 2) {
    line("mount", sys6(165, (i64)w[1], (i64)(n >= 3 ? w[2] : "/sysesp"), (i64)(n >= 4 ? w[3] : "vfat"), 0, 0));
  } else if (eq(c, "umount") && n >= 2) {
    line("umount", sys3(166, (i64)w[1], 0, 0));
  } else if (eq(c, "grow") && n >= 3) {
    line("grow", sys6(TAVI_FS_GROW, num(w[1]), num(w[2]), 0, 0, 0));
  } else if (eq(c, "notify") && n >= 2) {
    line("notify", sys6(TAVI_NOTIFY, TAVI_NOTIFY_POST, TAVI_NOTIFY_POST_WORD, (i64)w[1], (i64)len(w[1]), 0));
  } else if (eq(c, "getpid")) {
    line("pid", sys3(39, 0, 0, 0));
  } else if (eq(c, "rename") && n >= 3) {
    line("rename", sys3(82, (i64)w[1], (i64)w[2], 0));
  } else if (eq(c, "create") && n >= 2) {
    i64 fd = sys3(2, (i64)w[1], 577, 0);
    line("create", fd);
    if (!is_error(fd)) {
      sys3(1, fd, (i64)"x\n", 2);
      sys3(3, fd, 0, 0);
    }
  } else if (eq(c, "mkdir") && n >= 2) {
    line("mkdir", sys3(83, (i64)w[1], 0, 0));
  } else if (eq(c, "sync")) {
    line("sync", sys3(162, 0, 0, 0));
  } else if (eq(c, "write") && n >= 3) {
    /* write FILE TEXT: create (mode 0) and write */
    i64 fd = sys3(2, (i64)w[1], 577, 0);
    if (!is_error(fd)) {
      sys3(1, fd, (i64)w[2], (i64)len(w[2]));
      sys3(3, fd, 0, 0);
    }
    line("write", fd < 0 ? fd : 0);
  } else if (eq(c, "unlink") && n >= 2) {
    line("unlink", sys3(87, (i64)w[1], 0, 0));
  } else if (eq(c, "fork") && n >= 2) {
    /* fork MS [FILE TEXT]: the child sleeps MS milliseconds, then writes TEXT to FILE
       (or prints) and ends; the parent goes on */
    i64 pid = sys3(57, 0, 0, 0);
    if (pid == 0) {
      i64 ms = num(w[1]);
      i64 req[2] = {ms / 1000, (ms % 1000) * 1000000};
      sys3(35, (i64)req, 0, 0);
      if (n >= 4) {
        i64 fd = sys3(2, (i64)w[2], 577, 0);
        if (!is_error(fd)) {
          sys3(1, fd, (i64)w[3], (i64)len(w[3]));
          sys3(3, fd, 0, 0);
        }
      } else {
        out("child done\n");
      }
      sys3(60, 0, 0, 0);
    }
    line("fork", pid);
  } else if (eq(c, "sleeploop")) {
    /* sleeps one second after the other, for ever */
    for (;;) {
      i64 req[2] = {1, 0};
      sys3(35, (i64)req, 0, 0);
    }
  } else if (eq(c, "spin")) {
    for (volatile int k = 0;; k++) {
    }
  } else if (eq(c, "crash")) {
    /* the address goes through a volatile so the compiler sees no constant bad pointer */
    volatile u64 address = 8;
    *(volatile int*)address = 1;
  } else if (eq(c, "exit") && n >= 2) {
    sys3(60, num(w[1]), 0, 0);
  } else {
    out("probe: unknown command ");
    out(c);
    out("\n");
  }
}

i64 probe_main(u64* block) {
  int argc = (int)block[0];
  char** argv = (char**)(block + 1);
  int i = 1;
  while (i < argc) {
    int j = i;
    while (j < argc && !eq(argv[j], ",")) j++;
    if (j > i) run(argv + i, j - i);
    i = j + 1;
  }
  return 0;
}
