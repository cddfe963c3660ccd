/* The tavi kernel's own calls, as the device program makes them: their numbers, the
 * selectors and fields they take, the answers that mean something, and the word that
 * restarts the machine.
 *
 * The device program makes these calls, the simulator answers them and the simulator's
 * probe (a C program) makes them to check the simulator; all three take the numbers from
 * here, so a number is written down once. Hence plain C: enumerations only, no includes,
 * nothing that needs a library or a C++ compiler. The ordinary calls (read, open,
 * reboot, ...) keep their Linux x86-64 numbers and are not repeated here. */
#pragma once

/* Call numbers. */
enum {
  TAVI_SPAWN = 1001,       /* program path, word array, word count: the new process id */
  TAVI_SYSTEM_INFO = 1002, /* selector, 0, 0: one system fact */
  TAVI_TASK_INFO = 1003,   /* slot, field, 0: one field of a task-table slot */
  TAVI_END_TASK = 1004,    /* process id, exit status, 0 */
  TAVI_FS_GROW = 1880,     /* operation, argument, 0, 0, 0 */
  TAVI_NOTIFY = 1960       /* TAVI_NOTIFY_POST, TAVI_NOTIFY_POST_WORD, text, length, 0 */
};

/* Selectors of TAVI_SYSTEM_INFO. Free space in bytes is free blocks times block size. */
enum {
  TAVI_INFO_FREE_BLOCKS = 5, /* free blocks of the root file system */
  TAVI_INFO_BLOCK_SIZE = 8,  /* its block size in bytes */
  TAVI_INFO_YEAR = 12,
  TAVI_INFO_MONTH = 13, /* 1 to 12 */
  TAVI_INFO_DAY = 14,   /* day of the month */
  TAVI_INFO_HOUR = 15,
  TAVI_INFO_MINUTE = 16
};

/* Fields of TAVI_TASK_INFO, and the states that mean no live task holds the slot (an
 * error answer means that too). A task's name is 16 bytes in two fields of 8, packed
 * little-endian: the first character in the lowest byte, zero bytes after a shorter name. */
enum {
  TAVI_TASK_STATE = 0,
  TAVI_TASK_PID = 1,
  TAVI_TASK_NAME_LOW = 10,  /* name bytes 0 to 7 */
  TAVI_TASK_NAME_HIGH = 11, /* name bytes 8 to 15 */
  TAVI_TASK_NAME_BYTES = 16,
  TAVI_TASK_FREE = 0,       /* state: the slot was never used */
  TAVI_TASK_ENDED = 5       /* state: its task has ended */
};

/* Operations of TAVI_FS_GROW: a query by selector, and one step of the growth. */
enum {
  TAVI_GROW_QUERY = 15,
  TAVI_GROW_STEP = 16,
  /* Query selectors. */
  TAVI_GROW_STATE = 0,
  TAVI_GROW_PERMILLE = 1, /* progress of the growth so far */
  TAVI_GROW_FS_BLOCKS = 2,
  TAVI_GROW_DEVICE_BLOCKS = 3,
  TAVI_GROW_INODES = 4,
  TAVI_GROW_EXT_INODES = 6,
  /* Answers to the state query; any other state means the growth can proceed. */
  TAVI_GROW_IMPOSSIBLE = 0,
  TAVI_GROW_DONE = 3,
  /* Answers to a step; any other answer is the kernel's failure code. */
  TAVI_GROW_MORE = 0,
  TAVI_GROW_FINISHED = 1
};

/* The first two words of TAVI_NOTIFY: the operation that posts a one-line notice to the
 * desktop, and the word that always goes with it. */
enum { TAVI_NOTIFY_POST = 19, TAVI_NOTIFY_POST_WORD = 1 };

/* The restart command of reboot (the Linux number 169): the first and only argument, with
 * none of the magic numbers Linux asks for before it. */
enum { TAVI_RESTART = 0x1234567 };
