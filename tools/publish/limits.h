#pragma once
// What a device can take in, as its fixed buffers and file formats allow. A release that
// goes past one of these would be cut without notice or refused on the device, so the
// publisher refuses it first, naming the limit. Every number comes from the device's own
// header of capacities (device_limits.h); here they are turned into what the publisher
// asks: the characters a device keeps of each field (its buffer capacity less the closing
// zero). The static_asserts pin the figures the commands' help texts and messages name,
// so that a capacity moved on the device stops the build until they are brought along.
#include <cstddef>
#include <cstdint>

#include "device_limits.h"

namespace publish::limits {

using ota::characters_kept;

// The catalog buffer; a longer VERZEICHNIS is cut before the signature check and fails it.
constexpr std::size_t kCatalogBytes = ota::kCatalogBytes;
static_assert(kCatalogBytes == 32767, "the help texts and messages name 32767 bytes");

// Versions, builds and key generations are stored on the device as eight zero-padded
// digits (FASSUNG, SYSVERSION, SCHLUESSELGEN, GESPERRT records keep the number modulo
// 10^8). A larger number would come back smaller after a restart and be offered again
// forever, or block the wrong version.
constexpr std::uint64_t kStoredNumberMax = ota::kStoredNumberModulus - 1;
static_assert(kStoredNumberMax == 99999999, "the help texts name 99999999");
// The catalog fields that carry those numbers are read with 19 characters.
constexpr std::size_t kNumberField = characters_kept(ota::kBuildFieldBytes);
static_assert(kNumberField == characters_kept(ota::kSizeFieldBytes), "build, min_from and sizes are read alike");

// "paket" line fields.
constexpr std::size_t kPackageName = characters_kept(ota::kPackageNameBytes);  // where install reads it
constexpr std::size_t kPackageWord = characters_kept(ota::kPackageFieldBytes);  // shown by search only
constexpr std::size_t kPackageFile = characters_kept(ota::kPackageFieldBytes);  // file name at the source
constexpr std::size_t kPackageLength = characters_kept(ota::kPackageFieldBytes);
constexpr std::size_t kSigSuffix = ota::kSignatureSuffixLength;  // ".sig" for the package signature
constexpr std::size_t kPlatformTag = characters_kept(ota::kPlatformFieldBytes);
constexpr std::size_t kPackageShaField = characters_kept(ota::kHashFieldBytes);
constexpr std::size_t kShaHexChars = 64;
static_assert(kPackageName == 63 && kPackageWord == 127 && kPlatformTag == 31,
              "the catalog help names 63, 127 and 31 characters");
static_assert(kPackageFile - kSigSuffix == 123, "the catalog help names 123 characters for a file name");

// A device keeps at most this many withdrawn versions in /system/GESPERRT.
constexpr std::size_t kBlockedVersions = ota::kBlockedRecords;
static_assert(kBlockedVersions == 64, "the help texts and messages name 64");

// "system" line: build, commit and min_from are each kept with 19 characters.
constexpr std::size_t kCommitMax = characters_kept(ota::kCommitBytes);
// The running kernel is recognised by the first seven characters of the commit; a shorter
// commit would be compared with the bytes that follow it in the pending record.
constexpr std::size_t kCommitMin = ota::kCommitPrefix;
static_assert(kCommitMin == 7 && kCommitMax == 19, "the system help names 7 to 19 characters");

// "sysfile" kernel, notes, roots and file entries keep their download name with 119
// characters; so does a "sysgz" line for its gzip file.
constexpr std::size_t kSysfileName = characters_kept(ota::kEntryNameBytes);
// Release notes are read and shown up to 2000 bytes; larger notes are not fetched at all.
constexpr std::size_t kNotesBytes = ota::kNotesLimit;
static_assert(kNotesBytes == 2000, "the system help and messages name 2000 bytes");

// Overlay targets, link paths and link targets are kept with 59 characters, one less than
// the 60 the target rules would allow; a longer one would be cut into a different path.
constexpr std::size_t kTargetKept = characters_kept(ota::kTargetBytes);
static_assert(kTargetKept == characters_kept(ota::kLinkBytes), "targets and links are read alike");
static_assert(kTargetKept < ota::kTargetLongest, "a target that is kept whole is never too long for the rules");
static_assert(kTargetKept == 59, "the system help names 59 characters");
constexpr std::size_t kTargetMin = ota::kTargetShortestPath;  // shortest allowed absolute path
// The overlay journal is written only while it stays within 7900 bytes; before a file
// line the text plus the target plus 3 must fit, before a link line the text plus 140.
constexpr std::size_t kJournalBytes = ota::kJournalLimit;
constexpr std::size_t kJournalFileReserve = ota::kJournalFileReserve;
constexpr std::size_t kJournalLinkReserve = ota::kJournalLinkReserve;
static_assert(kJournalBytes == 7900 && kJournalLinkReserve == 140, "the messages name 7900 and 140 bytes");

// "kette" line fields as the key-chain walk reads them.
constexpr std::size_t kChainGenerationField = characters_kept(ota::kGenerationFieldBytes);
constexpr std::size_t kChainKeyField = characters_kept(ota::kKeyFieldBytes);
constexpr std::size_t kChainSignatureField = characters_kept(ota::kSignatureFieldBytes);

// The "fassung" value and a "gesperrt" field are read with 23 characters.
constexpr std::size_t kFassungField = characters_kept(ota::kVersionFieldBytes);
constexpr std::size_t kBlockedField = characters_kept(ota::kBlockedFieldBytes);
static_assert(kFassungField == 23, "the check names 23 characters");
// "sysfile" kind field; "sysgz" target field.
constexpr std::size_t kSysfileKind = characters_kept(ota::kKindBytes);
constexpr std::size_t kSysfileSha = characters_kept(ota::kShaFieldBytes);
constexpr std::size_t kSysgzTarget = characters_kept(ota::kGzipTargetBytes);

}  // namespace publish::limits
