#pragma once
// Where files are fetched from: the source address, the channel and the device name,
// read from the settings before every fetching command.

#include "config/settings.h"

namespace ota {

struct SourceSettings {
  char source[kSourceBytes];
  char channel[kChannelBytes];
  char device_name[kDeviceNameBytes];
};
extern SourceSettings source_settings;

// Which source a command fetches from: the package source, or the system source that
// derive_system_source makes of it.
enum class SourceKind { packages, system };

// Loads the settings and fills source and channel; false, with the user's message printed,
// when the file names no source or a wrong channel. For the system source the derived
// source replaces the package source.
bool load_source_settings(SourceKind kind);
// Reads name= into the device name (empty when absent).
void load_device_name();
void derive_system_source();

}  // namespace ota
