#include "tavisim/device.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host.h"
#include "tavisim/boot.h"
#include "kernel.h"
#include "rootfs.h"

namespace tavisim {

void init_device(const std::string& dir, const InitOptions& options) {
  if (host_exists(dir + "/root")) throw SimError(dir + " already holds a device (root/ exists)");
  auto binary = read_host_file(options.ota_binary);
  if (!binary) throw SimError("cannot read the device program " + options.ota_binary);
  for (const char* sub : {"root/bin", "root/etc", "root/system", "root/tmp", "root/sysesp", "root/proc", "disks"})
    make_host_dirs(join_path(dir, sub));
  write_host_file(dir + "/root/bin/ota", *binary, 0755);
  write_host_file(dir + "/root/proc/version", options.proc_version);
  write_host_file(dir + "/sim.conf", format_config(Config{}));
  write_host_file(dir + "/kernel.state", format_kernel_state(KernelState{}));
  write_host_file(dir + "/events.log", "");
  for (auto& disk : options.esp_disks) {
    if (disk.empty() || disk.find('/') != std::string::npos) throw SimError("not a disk name: " + disk);
    make_fat_image(dir + "/disks/" + disk + ".img",
                   {{"limine.conf", default_limine_conf()}, {"tavi.mb", stand_in_kernel(1, "0000000")}});
  }
}

struct Device::Impl {
  std::string dir;
  Config config;
  std::unique_ptr<Kernel> kernel;
};

Device::Device(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Device::Device(Device&&) noexcept = default;
Device& Device::operator=(Device&&) noexcept = default;
Device::~Device() = default;

Device Device::create(const std::string& ota_binary, const InitOptions& extra) {
  const char* base = getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/tavisim-device-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back(0);
  if (!mkdtemp(buf.data())) throw SimError("cannot create a device directory under " + tmpl);
  InitOptions options = extra;
  options.ota_binary = ota_binary;
  init_device(buf.data(), options);
  return open(buf.data());
}

Device Device::open(const std::string& dir) {
  auto impl = std::make_unique<Impl>();
  char real[PATH_MAX];
  impl->dir = realpath(dir.c_str(), real) ? std::string(real) : dir;
  if (!host_is_dir(dir + "/root")) throw SimError(dir + " is not a device directory: " + dir + "/root is missing");
  if (auto text = read_host_file(dir + "/sim.conf")) impl->config = parse_config(*text, dir + "/sim.conf");
  impl->kernel = std::make_unique<Kernel>(dir);
  return Device(std::move(impl));
}

const std::string& Device::dir() const { return impl_->dir; }
std::string Device::root() const { return impl_->dir + "/root"; }
std::string Device::host_path(std::string_view device_path) const {
  return root() + RootFs::normalize(device_path);
}

void Device::write_file(std::string_view path, std::string_view data, unsigned mode) {
  std::string host = host_path(path);
  make_host_dirs(parent_of(host));
  write_host_file(host, data, mode);
}

std::optional<std::string> Device::read_file(std::string_view path) const { return read_host_file(host_path(path)); }
bool Device::exists(std::string_view path) const { return host_exists(host_path(path)); }
void Device::remove(std::string_view path) { remove_host_tree(host_path(path)); }
void Device::make_dir(std::string_view path) { make_host_dirs(host_path(path)); }

unsigned Device::mode_of(std::string_view path) const {
  struct stat st;
  if (lstat(host_path(path).c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

Config& Device::config() { return impl_->config; }

void Device::save_config() {
  write_host_file(impl_->dir + "/sim.conf", format_config(impl_->config));
  impl_->kernel->set_config(impl_->config);
}

void Device::add_repo(const std::string& url_prefix, const std::string& host_dir) {
  impl_->config.repos.push_back({url_prefix, host_dir});
  save_config();
}

void Device::add_task(const std::string& name, int slot, double appear_seconds, double end_seconds, int64_t pid) {
  TaskSpec t;
  t.name = name;
  t.slot = slot;
  t.appear_ns = static_cast<int64_t>(appear_seconds * 1e9);
  t.end_ns = end_seconds < 0 ? -1 : static_cast<int64_t>(end_seconds * 1e9);
  t.pid = pid;
  if (slot < 0 || slot >= kTaskSlots) throw SimError("task slot beyond 0..127: " + std::to_string(slot));
  if (name.size() > 16) throw SimError("task name longer than 16 bytes: " + name);
  impl_->config.tasks.push_back(t);
  save_config();
}

void Device::add_fetch_fault(const std::string& file_name, FetchFaultKind kind, int64_t arg, int64_t times) {
  FetchFault f;
  f.name = file_name;
  f.kind = kind;
  f.arg = arg;
  if (times < 0)
    times = kind == FetchFaultKind::corrupt || kind == FetchFaultKind::length ? 0 : 1;
  f.times = times;
  if (kind == FetchFaultKind::fail && times == 0) throw SimError("a fetch failure needs a count above 0");
  impl_->config.fetch_faults.push_back(f);
  save_config();
  impl_->kernel->reset_counters();
}

void Device::add_call_fault(const CallFault& fault) {
  impl_->config.call_faults.push_back(fault);
  save_config();
  impl_->kernel->reset_counters();
}

void Device::set_program(const std::string& device_path, const std::string& host_executable) {
  impl_->config.programs[device_path] = host_executable;
  save_config();
}

void Device::clear_faults() {
  impl_->config.fetch_faults.clear();
  impl_->config.call_faults.clear();
  impl_->config.cut.reset();
  save_config();
  impl_->kernel->reset_counters();
}

std::string Device::disk_image(const std::string& disk) const { return impl_->dir + "/disks/" + disk + ".img"; }

void Device::make_esp(const std::string& disk, const std::map<std::string, std::string>& files, unsigned size_kib) {
  make_fat_image(disk_image(disk), files, size_kib);
}

std::optional<std::string> Device::esp_read(const std::string& disk, const std::string& path) const {
  return fat_read(disk_image(disk), path);
}

std::vector<std::string> Device::esp_list(const std::string& disk) const { return fat_list(disk_image(disk)); }

int Device::esp_check(const std::string& disk, std::string* report) const {
  return fat_check(disk_image(disk), report);
}

bool Device::mounted(const std::string& target) const { return impl_->kernel->mounted(target); }

RunResult Device::run(const std::vector<std::string>& words, const RunOptions& options) {
  return wait(start(words, options));
}

RunResult Device::run_argv(const std::vector<std::string>& argv, const RunOptions& options) {
  return wait(start_argv(argv, options));
}

CommandId Device::start(const std::vector<std::string>& words, const RunOptions& options) {
  std::vector<std::string> argv = {"/bin/ota"};
  argv.insert(argv.end(), words.begin(), words.end());
  return start_argv(argv, options);
}

CommandId Device::start_argv(const std::vector<std::string>& argv, const RunOptions& options) {
  save_config();
  return impl_->kernel->start(argv, options);
}

bool Device::serve_until(const std::function<bool()>& done, double wall_seconds, double virtual_seconds) {
  return impl_->kernel->serve_until(done, wall_seconds, virtual_seconds);
}

bool Device::serve_until_held(const std::string& file_name, double wall_seconds, double virtual_seconds) {
  return serve_until([&] { return held(file_name); }, wall_seconds, virtual_seconds);
}

bool Device::held(const std::string& file_name) const { return impl_->kernel->held(file_name); }
void Device::release(const std::string& file_name) { impl_->kernel->release(file_name); }
RunResult Device::wait(CommandId command, double wall_seconds) { return impl_->kernel->wait(command, wall_seconds); }
bool Device::finished(CommandId command) const { return impl_->kernel->finished(command); }

bool Device::wait_background(double wall_seconds, double virtual_seconds) {
  return impl_->kernel->wait_background(wall_seconds, virtual_seconds);
}

std::vector<int64_t> Device::live_pids() const { return impl_->kernel->live_pids(); }
void Device::power_off() { impl_->kernel->power_off(); }
BootResult Device::boot(const BootOptions& options) {
  save_config();
  return impl_->kernel->boot(options);
}
BootResult Device::boot() { return boot(BootOptions{}); }
std::string Device::remembered_entry() const { return read_firmware_state(impl_->dir).last_booted_entry; }
void Device::set_remembered_entry(const std::string& title) {
  FirmwareState s = read_firmware_state(impl_->dir);
  s.last_booted_entry = title;
  write_firmware_state(impl_->dir, s);
}
int64_t Device::virtual_ms() const { return impl_->kernel->clock_ns() / 1000000; }
void Device::advance_clock(double seconds) { impl_->kernel->advance_clock(static_cast<int64_t>(seconds * 1e9)); }

std::vector<Event> Device::events() const {
  return parse_events(read_host_file(impl_->dir + "/events.log").value_or(""));
}

void Device::reset_fault_counters() { impl_->kernel->reset_counters(); }

}  // namespace tavisim
