#pragma once
// GoogleTest fixture: a fresh simulated device per test, removed afterwards (kept when
// TAVISIM_KEEP=1 is set, and its directory printed).

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "files.h"
#include "tavisim/device.h"

namespace tavisim {

class DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override { device_.emplace(Device::create(program())); }

  void TearDown() override {
    if (!device_) return;
    std::string dir = device_->dir();
    device_.reset();
    const char* keep = getenv("TAVISIM_KEEP");
    if (keep && *keep == '1') {
      std::cerr << "device kept in " << dir << "\n";
      return;
    }
    std::filesystem::remove_all(dir);
  }

  // The program installed as the device's /bin/ota: the real ota unless a test says so.
  virtual std::string program() const { return OTA_BINARY; }

  Device& device() { return *device_; }

  // A host directory inside the device directory (removed with it), for repositories
  // and scripts.
  std::string scratch(const std::string& name) {
    std::string p = device_->dir() + "/scratch/" + name;
    std::filesystem::create_directories(p);
    return p;
  }

  static void write_host(const std::string& path, const std::string& data, bool executable = false) {
    write_all(path, data);
    if (executable)
      std::filesystem::permissions(path, std::filesystem::perms::owner_all | std::filesystem::perms::group_read |
                                             std::filesystem::perms::group_exec);
  }


  std::optional<Device> device_;
};

}  // namespace tavisim
