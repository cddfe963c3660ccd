#pragma once
// What a device can take in, as its fixed buffers and file formats allow. A release that
// goes past one of these would be cut without notice or refused on the device, so the
// publisher refuses it first, naming the limit. Lengths are characters kept by the
// device's field reader (its buffer capacity less the closing zero).
#include <cstddef>
#include <cstdint>

namespace publish::limits {

// The catalog buffer; a longer VERZEICHNIS is cut before the signature check and fails it.
constexpr std::size_t kCatalogBytes = 32767;

// Versions, builds and key generations are stored on the device as eight zero-padded
// digits (FASSUNG, SYSVERSION, SCHLUESSELGEN, GESPERRT records keep the number modulo
// 10^8). A larger number would come back smaller after a restart and be offered again
// forever, or block the wrong version.
constexpr std::uint64_t kStoredNumberMax = 99999999;
// The catalog fields that carry those numbers are read with 19 characters.
constexpr std::size_t kNumberField = 19;

// "paket" line fields.
constexpr std::size_t kPackageName = 63;   // install reads the name with 64 bytes
constexpr std::size_t kPackageWord = 127;  // second word, shown by search only
constexpr std::size_t kPackageFile = 127;  // file name at the source
constexpr std::size_t kSigSuffix = 4;      // ".sig" appended for the package signature
constexpr std::size_t kPlatformTag = 31;
constexpr std::size_t kShaHexChars = 64;

// A device keeps at most this many withdrawn versions in /system/GESPERRT.
constexpr std::size_t kBlockedVersions = 64;

// "system" line: build, commit and min_from are each kept with 19 characters.
constexpr std::size_t kCommitMax = 19;
// The running kernel is recognised by the first seven characters of the commit; a shorter
// commit would be compared with the bytes that follow it in the pending record.
constexpr std::size_t kCommitMin = 7;

// "sysfile" kernel, notes, roots and file entries keep their download name with 119
// characters; so does a "sysgz" line for its gzip file.
constexpr std::size_t kSysfileName = 119;
// Release notes are read and shown up to 2000 bytes; larger notes are not fetched at all.
constexpr std::size_t kNotesBytes = 2000;

// Overlay targets, link paths and link targets are kept with 59 characters, one less than
// the 60 the target rules would allow; a longer one would be cut into a different path.
constexpr std::size_t kTargetKept = 59;
constexpr std::size_t kTargetMin = 6;  // shortest allowed absolute path
// The overlay journal is written only while it stays within 7900 bytes; before a file
// line the text plus the target plus 3 must fit, before a link line the text plus 140.
constexpr std::size_t kJournalBytes = 7900;
constexpr std::size_t kJournalFileReserve = 3;
constexpr std::size_t kJournalLinkReserve = 140;

// "kette" line fields as the key-chain walk reads them.
constexpr std::size_t kChainGenerationField = 23;
constexpr std::size_t kChainKeyField = 79;
constexpr std::size_t kChainSignatureField = 139;

// The "fassung" value is read with 23 characters.
constexpr std::size_t kFassungField = 23;
// "sysfile" kind field; "sysgz" target field.
constexpr std::size_t kSysfileKind = 23;
constexpr std::size_t kSysfileSha = 69;
constexpr std::size_t kSysgzTarget = 63;
constexpr std::size_t kPackageShaField = 71;

}  // namespace publish::limits
