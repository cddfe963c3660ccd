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

// Set around the catalog load of a system update: the load then uses the system source.
extern bool system_mode;

// Loads the settings and fills source and channel, failing with the user's message when
// the file names no source or a wrong channel. In system mode the system source replaces
// the package source. Returns 0 or the failure status 1.
int load_source_settings();
// Reads name= into the device name (empty when absent).
void load_device_name();
void derive_system_source();

}  // namespace ota
