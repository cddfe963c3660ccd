#pragma once
// What a tavi device holds and how it reads back what it wrote: every fixed capacity of
// the device program, the tags and keys of its catalogs and records, and the rules for
// overlay targets. The device program, the publisher and the simulator all include this
// one header, so a capacity is written down in one place; when one moves here, the
// publisher refuses what a device would now cut, and the simulator models the new size.
//
// Constants only, and no includes: the freestanding device program reads it as well as the
// hosted tools. Capacities are buffer sizes in bytes; a text kept in one holds at most one
// byte less, because the closing 0 takes the last (see characters_kept).

namespace ota {

using usize = decltype(sizeof(0));

// Characters a value keeps in a buffer of this capacity.
constexpr usize characters_kept(usize capacity) { return capacity - 1; }
// Length of one of the texts below, worked out when the program is compiled.
constexpr usize text_length(const char* text) {
  usize n = 0;
  while (text[n] != 0) n++;
  return n;
}
constexpr bool texts_equal(const char* a, const char* b) {
  usize i = 0;
  while (a[i] != 0 && a[i] == b[i]) i++;
  return a[i] == b[i];
}
// Whether whole is a followed by b, for a text made of others.
constexpr bool texts_joined(const char* whole, const char* a, const char* b) {
  usize i = 0;
  for (; a[i] != 0; i++) {
    if (whole[i] != a[i]) return false;
  }
  return texts_equal(whole + i, b);
}

// ---------------------------------------------------------------------------------------
// Settings (/etc/ota.conf)

// The file's first 1,023 bytes are kept, closed with a 0.
constexpr usize kSettingsBytes = 1024;
constexpr usize kSourceBytes = 200;      // quelle=, sysquelle=
constexpr usize kDeviceNameBytes = 128;  // name=
constexpr usize kChannelBytes = 20;      // kanal=
constexpr usize kAutoBytes = 16;         // auto=
// number_of looks a value up into a buffer of this size.
constexpr usize kNumberValueBytes = 32;
// `ota settings` shows values up to 255 bytes.
constexpr usize kShownValueBytes = 256;

// ---------------------------------------------------------------------------------------
// Fetching and starting programs

// The source (199), "/", the channel (19), "/", a file name (127) and ".sig", with room
// to spare. A longer URL (only `ota fetch` can ask for one) is cut here.
constexpr usize kUrlBytes = 360;
// One argument vector serves every start: /bin/fetch takes up to 8 words, /bin/tpk 5.
constexpr usize kProgramWords = 8;
// A package's signature is fetched as its file name with this appended.
constexpr const char* kSignatureSuffix = ".sig";
constexpr usize kSignatureSuffixLength = text_length(kSignatureSuffix);
// /system/clock.stand is read up to 4 bytes, /etc/ntp.conf up to 399.
constexpr usize kClockStateBytes = 4;
constexpr usize kNtpConfigBytes = 399;

// ---------------------------------------------------------------------------------------
// Keys and signatures

// An Ed25519 public key, as /system/schluessel.pub and /system/ersatz.pub hold it (the
// first 32 bytes of a longer file count; a shorter one is no key), and a signature (R then
// S), as every .sig file holds it raw (the first 64 bytes count; fewer are no signature).
constexpr usize kPublicKeyBytes = 32;
constexpr usize kSignatureBytes = 64;

// ---------------------------------------------------------------------------------------
// Files and number files

// replace_file keeps its temporary name in one static buffer; paths this long or longer
// are written directly.
constexpr usize kReplacePathLimit = 191;
// FASSUNG, SCHLUESSELGEN, SYSVERSION, sys.notified, AKTUELL and the GESPERRT records hold
// a number as eight zero-padded digits: the number modulo 10^8.
constexpr usize kStoredDigits = 8;
constexpr usize kStoredNumberModulus = 100000000;
// A number file is read up to 15 bytes.
constexpr usize kNumberFileReadBytes = 15;
// /system/AKTUELL is read up to 11 bytes when a trial is armed.
constexpr usize kCurrentGenerationReadBytes = 11;

// ---------------------------------------------------------------------------------------
// The signed catalog VERZEICHNIS (and the system manifest, read into the same buffer)

// The catalog is read into 32,767 bytes; a longer one is cut and fails its signature.
constexpr usize kCatalogBytes = 32767;
// The text must begin with this marker.
constexpr const char* kCatalogMarker = "OTA2";
// Line kinds, each with its TAB: a line's kind is the tag at its very start.
constexpr const char* kVersionTag = "fassung\t";
constexpr const char* kPackageTag = "paket\t";
constexpr const char* kChainTag = "kette\t";
constexpr const char* kBlockedTag = "gesperrt\t";
constexpr const char* kSystemTag = "system\t";
constexpr const char* kSystemFileTag = "sysfile\t";
constexpr const char* kOverlayFileTag = "sysfile\tfile\t";
constexpr const char* kGzipTag = "sysgz\t";
constexpr const char* kLinkTag = "syslink\t";
// The longest tag whose lookups are remembered ("sysfile\tfile\t" is the longest in use).
constexpr usize kCursorTagBytes = 16;

// "fassung" value and "gesperrt" field 0: 23 characters each.
constexpr usize kVersionFieldBytes = 24;
constexpr usize kBlockedFieldBytes = 24;

// "paket" fields: name, word, length and file name 127 characters; the name 63 where the
// install step reads it; the hash 71; the platform tag 31.
constexpr usize kPackageFieldBytes = 128;
constexpr usize kPackageNameBytes = 64;
constexpr usize kHashFieldBytes = 72;
constexpr usize kPlatformFieldBytes = 32;
// The machine's own platform tag, and the tag every platform takes.
constexpr const char* kPlatform = "tavi-x86_64";
constexpr const char* kAnyPlatform = "tavi-any";

// "kette" fields: the generation 23 characters, the key 79, the signature 139. A key
// change signs this prefix, the generation in decimal, a TAB and the key field.
constexpr usize kGenerationFieldBytes = 24;
constexpr usize kKeyFieldBytes = 80;
constexpr usize kSignatureFieldBytes = 140;
constexpr const char* kChainSignedPrefix = "tavi-schluessel\t";

// The installer's CATALOG is read into 8,191 bytes.
constexpr usize kInstallCatalogBytes = 8191;

// ---------------------------------------------------------------------------------------
// Withdrawn versions (/system/GESPERRT)

// Records of 9 bytes (eight digits and a LF), of which the first 64 count. The file is read
// up to 639 bytes, 71 whole records: a longer file (640 bytes, say) still yields 64, and
// the part of a record at the end of what was read is ignored.
constexpr usize kBlockedRecords = 64;
constexpr usize kBlockedRecordBytes = 9;
constexpr usize kBlockedFileBytes = 639;
static_assert(kBlockedRecords * kBlockedRecordBytes <= kBlockedFileBytes, "a full table fits what is read");

// ---------------------------------------------------------------------------------------
// The system manifest and the system records

// "system" line: build, commit and min_from, 19 characters each.
constexpr usize kBuildFieldBytes = 20;
constexpr usize kCommitBytes = 20;
// "sysfile" lines: kind 23, SHA-256 69, size 19, download name 119 characters.
constexpr usize kKindBytes = 24;
constexpr usize kShaFieldBytes = 70;
constexpr usize kSizeFieldBytes = 20;
constexpr usize kEntryNameBytes = 120;
// A download name's path under the work directory: "/tmp/ota/" and the name.
constexpr usize kEntryWorkPathBytes = kEntryNameBytes + 16;
// The kinds of a "sysfile" line a device knows.
constexpr const char* kKernelKind = "kernel";
constexpr const char* kNotesKind = "notes";
constexpr const char* kRootsKind = "roots";
constexpr const char* kFileKind = "file";
// An overlay file entry is a "sysfile" line of kind "file" (kOverlayFileTag).
static_assert(texts_joined(kOverlayFileTag, kSystemFileTag, "file\t") && texts_equal(kFileKind, "file"));
// Release notes are kept and shown up to this size; larger notes are not fetched.
constexpr usize kNotesLimit = 2000;
// /etc/osversion is shown up to 200 bytes.
constexpr usize kOsVersionBytes = 200;
// "System update available: build " and a number, in a zeroed buffer.
constexpr usize kNoticeBytes = 96;

// /system/SYSPENDING: "count=" build, "commit=" commit, "sha=" kernel hash, a line each.
// It is read up to 300 bytes and each key is found anywhere in the text, first occurrence
// first: so no text written into the record may hold a key that comes after it.
constexpr usize kPendingBytes = 300;
constexpr const char* kPendingCountKey = "count=";
constexpr const char* kPendingCommitKey = "commit=";
constexpr const char* kPendingShaKey = "sha=";
// The running kernel is recognised by the first seven characters of the commit, compared
// with the seven after the first " build " of /proc/version (read up to 200 bytes).
constexpr usize kCommitPrefix = 7;
constexpr usize kProcVersionBytes = 200;
// /system/sys.stand: "here=", "there=", "commit=" and "phase=" lines, read by others as
// key=value lines (a value ends at LF or CR).

// ---------------------------------------------------------------------------------------
// Overlay files

// A target is a bare program name of 1 to 60 characters (it goes to /bin) or an absolute
// path of 6 to 60 characters in one of the overlay areas; a link path is such a path and
// its target /bin/ and a program name. A path ending in "/start" is installed executable.
constexpr usize kTargetLongest = 60;
constexpr usize kTargetShortestPath = 6;
constexpr const char* kProgramDirectory = "/bin/";
constexpr const char* kAppsArea = "/apps/";
constexpr const char* kEtcArea = "/etc/";
constexpr const char* kShareArea = "/usr/share/";
constexpr const char* kLibArea = "/lib/";
constexpr const char* kStartEnding = "/start";
// Field capacities: a file entry's target 59 characters, a gzip line's target 63, link
// paths and link targets 59.
constexpr usize kTargetBytes = 60;
constexpr usize kGzipTargetBytes = 64;
constexpr usize kLinkBytes = 60;
// The journal /system/SYSOVL is written only while it stays within 7,900 bytes: before a
// file line the text plus the target plus 3 must fit, before a link line the text plus
// 140. It is read back up to 8,000 bytes, each line cut to 130 characters after its flag.
constexpr usize kJournalLimit = 7900;
constexpr usize kJournalFileReserve = 3;
constexpr usize kJournalLinkReserve = 140;
constexpr usize kJournalReadBytes = 8000;
constexpr usize kJournalLineBytes = 130;
// Flags of the journal's lines: a file whose path existed or not, a link whose path
// existed or not.
constexpr char kJournalFileExisted = '1';
constexpr char kJournalFileNew = '0';
constexpr char kJournalLinkExisted = 'L';
constexpr char kJournalLinkNew = 'N';
// Staging, backup and real paths: a directory, "/", and a staging name or path of up to
// 60 characters.
constexpr usize kOverlayPathBytes = 96;
// Room kept free beside downloaded packages and beside staged overlay files.
constexpr usize kSpareRoom = 524288;

// ---------------------------------------------------------------------------------------
// The EFI system partition and the boot menu

// The menu is read whole into 24,000 bytes; a file that fills them may have been cut and
// is refused. The rewrite adds one entry copied from the first, into 28,000 bytes.
constexpr usize kMenuTextBytes = 24000;
constexpr usize kMenuOutputBytes = 28000;
// Kernel directory of the first entry's path line: at most 89 characters.
constexpr usize kKernelDirBytes = 90;
// "/sysesp", a kernel directory and "/tavi-b.mb".
constexpr usize kSlotPathBytes = 128;
// The promotion copies slot B over slot A in blocks of this size.
constexpr usize kCopyBlockBytes = 32768;

// ---------------------------------------------------------------------------------------
// Records of the device

// /system/ERPROBUNG: exactly 36 bytes, "gen=" 8 digits " vor=" 8 digits " v=" 2 digits
// " ok=" digit LF. Readers read up to 39 bytes, so a longer file shows as no record.
constexpr usize kTrialRecordBytes = 36;
constexpr usize kTrialReadBytes = 39;
constexpr usize kTrialGenerationOffset = 4;
constexpr usize kTrialReturnOffset = 17;
constexpr usize kTrialStartCountOffset = 28;
constexpr usize kTrialOkOffset = 34;

// /system/ota.stand: four short lines; state_is_ready looks at its first 150 bytes.
constexpr usize kStateRecordBytes = 160;
constexpr usize kStateReadBytes = 150;

// /system/sys.apply is read up to 60 bytes, /system/sys.applylog shown up to 900.
constexpr usize kApplyStateBytes = 60;
constexpr usize kApplyLogShownBytes = 900;

// ---------------------------------------------------------------------------------------
// The kernel's task table, hashing, unpacking and the console

// The start-up check looks at the first 32 slots; the scans that end tasks or look for a
// background apply walk 128. The two differ on purpose.
constexpr usize kHealthSlots = 32;
constexpr usize kTaskSlots = 128;
// Files are hashed and unpacked through 4,096-byte reads.
constexpr usize kSha256ReadBytes = 4096;
constexpr usize kGunzipInputBytes = 4096;
// A message line is put together in this buffer so that it leaves in one write.
constexpr usize kLineBytes = 512;
// Numbers as decimal text: 20 digits and the 0, one more for a sign.
constexpr usize kDecimalBytes = 22;

// ---------------------------------------------------------------------------------------
// Directories and file names that paths are assembled from

// Downloads and fetched files live here; made with mkdir right before first use.
constexpr const char* kWorkDir = "/tmp/ota";
// The overlay's new files are staged here, and the files they replace are kept here.
constexpr const char* kStagingDir = "/system/new";
constexpr const char* kBackupDir = "/system/old";
// Where the EFI system partition is mounted, and the two kernel slots' names on it.
constexpr const char* kEspMount = "/sysesp";
constexpr const char* kSlotAEnding = "/tavi.mb";
constexpr const char* kSlotBEnding = "/tavi-b.mb";

// ---------------------------------------------------------------------------------------
// Bounds the assemblies of paths and URLs rely on, checked here once.

// A URL made from a catalog: the source, "/", the channel, "/", a file name and ".sig".
static_assert(characters_kept(kSourceBytes) + 1 + characters_kept(kChannelBytes) + 1 +
                      characters_kept(kPackageFieldBytes) + kSignatureSuffixLength <
                  kUrlBytes,
              "every URL a catalog can ask for fits the URL buffer");
static_assert(characters_kept(kEntryNameBytes) < characters_kept(kPackageFieldBytes),
              "a system download name is shorter than a package file name");
// A working file: the work directory, "/", a package file name and ".sig", or a download
// name.
static_assert(text_length(kWorkDir) + 1 + characters_kept(kPackageFieldBytes) + kSignatureSuffixLength < kUrlBytes,
              "a package file's path under /tmp/ota fits a URL-sized buffer");
static_assert(text_length(kWorkDir) + 1 + characters_kept(kEntryNameBytes) < kEntryWorkPathBytes,
              "a download name's path under /tmp/ota fits its buffer");
// Overlay paths: the staging or backup directory, "/", and a target of at most 60
// characters, or "/bin/" and a field of 59.
static_assert(text_length(kStagingDir) + 1 + kTargetLongest < kOverlayPathBytes, "a staging path fits");
static_assert(text_length(kBackupDir) + 1 + kTargetLongest < kOverlayPathBytes, "a backup path fits");
static_assert(text_length(kProgramDirectory) + characters_kept(kTargetBytes) < kOverlayPathBytes,
              "a program's real path fits");
// The mount point, a kernel directory and the longer slot name.
static_assert(text_length(kEspMount) + characters_kept(kKernelDirBytes) + text_length(kSlotBEnding) < kSlotPathBytes,
              "a kernel slot path fits");
static_assert(text_length(kSlotAEnding) <= text_length(kSlotBEnding), "slot B's name is the longer one");
// A journal line, flag and LF included, fits the room kept for it and the line read back.
static_assert(1 + characters_kept(kLinkBytes) + 1 + characters_kept(kLinkBytes) + 1 <= kJournalLinkReserve,
              "a link line fits the room kept for it");
static_assert(characters_kept(kLinkBytes) + 1 + characters_kept(kLinkBytes) <= kJournalLineBytes,
              "a link line is read back whole");
static_assert(kJournalLimit < kJournalReadBytes, "the journal is read back whole");
// The pending record: "count=", 20 digits, "commit=", a commit, "sha=", a hash, three LFs.
static_assert(6 + 20 + 7 + characters_kept(kCommitBytes) + 4 + characters_kept(kShaFieldBytes) + 3 < kPendingBytes,
              "the pending record is read back whole");

}  // namespace ota
