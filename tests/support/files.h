#pragma once
// Whole files of the host, as the tests read and write them.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// The file's bytes; empty when it cannot be read.
inline std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Writes the file whole, making its directory first.
inline void write_all(const std::string& path, const std::string& data) {
  std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent);
  std::ofstream(path, std::ios::binary) << data;
}
