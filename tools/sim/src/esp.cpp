#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "esp_mount.h"
#include "host.h"
#include "tavisim/esp.h"

namespace tavisim {

int mtools(const std::vector<std::string>& argv, std::string* out, std::string* err) {
  ToolRun run;
  run.argv = argv;
  // The images are plain files; mtools must not second-guess their geometry.
  run.extra_env = {"MTOOLS_SKIP_CHECK=1"};
  std::string discard_out, discard_err;
  run.out = out ? out : &discard_out;
  run.err = err ? err : &discard_err;
  return run_tool(run);
}

namespace {

// Files on their way into an image wait beside it, so nothing is written outside the
// directory the image lives in.
std::string scratch_dir(const std::string& image) {
  std::string tmpl = parent_of(image) + "/.stage-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back(0);
  if (!mkdtemp(buf.data())) throw SimError("cannot create a scratch directory under " + tmpl);
  return buf.data();
}

std::string image_path(const std::string& rel) { return "::/" + rel; }

// Top-level entries of the image (without "::/" and without the trailing "/").
std::vector<std::string> top_level(const std::vector<std::string>& listing) {
  std::vector<std::string> top;
  for (auto& e : listing) {
    std::string name = e;
    if (!name.empty() && name.back() == '/') name.pop_back();
    if (name.find('/') == std::string::npos) top.push_back(name);
  }
  return top;
}

}  // namespace

std::string default_limine_conf() {
  return "timeout: 5\n"
         "default_entry: 1\n"
         "\n"
         "/tavi\n"
         "    protocol: multiboot1\n"
         "    path: boot():/tavi.mb\n"
         "    cmdline: tavi vfs gfx wm wig desk wmshell wmdauer herz tz=60 tzrule=eu nosched noproc nofs\n";
}

void make_fat_image(const std::string& image, const std::map<std::string, std::string>& files, unsigned size_kib) {
  unlink(image.c_str());
  make_host_dirs(parent_of(image));
  ToolRun mk;
  mk.argv = {"mkfs.vfat", "-C", image, std::to_string(size_kib)};
  std::string out, err;
  mk.out = &out;
  mk.err = &err;
  if (run_tool(mk) != 0) throw SimError("mkfs.vfat could not make " + image + ": " + err);
  if (files.empty()) return;
  std::string stage = scratch_dir(image);
  try {
    for (auto& [path, data] : files) {
      std::string host = join_path(stage, path);
      make_host_dirs(parent_of(host));
      write_host_file(host, data);
    }
    std::vector<std::string> argv = {"mcopy", "-s", "-o", "-i", image};
    TreeListing top = list_tree(stage);
    for (auto& d : top.dirs)
      if (d.find('/') == std::string::npos) argv.push_back(join_path(stage, d));
    for (auto& f : top.files)
      if (f.find('/') == std::string::npos) argv.push_back(join_path(stage, f));
    argv.push_back("::/");
    if (mtools(argv, nullptr, &err) != 0) throw SimError("mcopy could not fill " + image + ": " + err);
  } catch (...) {
    remove_host_tree(stage);
    throw;
  }
  remove_host_tree(stage);
}

bool fat_valid(const std::string& image) {
  if (!host_exists(image)) return false;
  return mtools({"minfo", "-i", image, "::"}) == 0;
}

std::vector<std::string> fat_list(const std::string& image) {
  std::string out;
  mtools({"mdir", "-/", "-b", "-a", "-i", image, "::/"}, &out);
  std::vector<std::string> names;
  size_t i = 0;
  while (i < out.size()) {
    size_t n = out.find('\n', i);
    if (n == std::string::npos) n = out.size();
    std::string line = out.substr(i, n - i);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.rfind("::/", 0) == 0 && line.size() > 3) names.push_back(line.substr(3));
    i = n + 1;
  }
  return names;
}

std::optional<std::string> fat_read(const std::string& image, const std::string& path) {
  std::string out;
  if (mtools({"mcopy", "-n", "-i", image, image_path(path), "-"}, &out) != 0) return std::nullopt;
  return out;
}

void fat_write(const std::string& image, const std::string& path, const std::string& data) {
  std::string stage = scratch_dir(image);
  std::string err;
  try {
    std::string rel;
    size_t i = 0;
    while (true) {
      size_t s = path.find('/', i);
      if (s == std::string::npos) break;
      rel = path.substr(0, s);
      mtools({"mmd", "-D", "s", "-i", image, image_path(rel)});
      i = s + 1;
    }
    std::string host = join_path(stage, "file");
    write_host_file(host, data);
    if (mtools({"mcopy", "-o", "-i", image, host, image_path(path)}, nullptr, &err) != 0)
      throw SimError("mcopy could not write " + path + " into " + image + ": " + err);
  } catch (...) {
    remove_host_tree(stage);
    throw;
  }
  remove_host_tree(stage);
}

void fat_remove(const std::string& image, const std::string& path) {
  std::string err;
  int rc = mtools({"mdel", "-i", image, image_path(path)}, nullptr, &err);
  if (rc != 0) rc = mtools({"mdeltree", "-i", image, image_path(path)}, nullptr, &err);
  if (rc != 0) throw SimError("could not remove " + path + " from " + image + ": " + err);
}

int fat_check(const std::string& image, std::string* report) {
  ToolRun run;
  run.argv = {"fsck.vfat", "-n", image};
  std::string out, err;
  run.out = &out;
  run.err = &err;
  int rc = run_tool(run);
  if (report) *report = out + err;
  return rc;
}

// ---------------------------------------------------------------------------------------

int FatMount::mount(const std::string& image, const std::string& dir) {
  image_ = image;
  dir_ = dir;
  files_.clear();
  dirs_.clear();
  if (!fat_valid(image)) return -EINVAL;
  std::vector<std::string> listing = fat_list(image);
  std::vector<std::string> top = top_level(listing);
  if (!top.empty()) {
    std::vector<std::string> argv = {"mcopy", "-s", "-n", "-m", "-i", image};
    for (auto& t : top) argv.push_back(image_path(t));
    argv.push_back(dir + "/");
    if (mtools(argv) != 0) return -EINVAL;
  }
  scan_as_written();
  return 0;
}

void FatMount::resume(const std::string& image, const std::string& dir) {
  image_ = image;
  dir_ = dir;
  scan_as_written();
}

bool FatMount::current_state(const std::string& rel, FileState& st, const FileState* known) {
  struct stat s;
  std::string host = join_path(dir_, rel);
  if (lstat(host.c_str(), &s) != 0 || !S_ISREG(s.st_mode)) return false;
  st.size = s.st_size;
  st.mtime_ns = static_cast<int64_t>(s.st_mtim.tv_sec) * 1000000000 + s.st_mtim.tv_nsec;
  // Unchanged size and time: the content is taken as unchanged, no need to hash again.
  if (known && known->size == st.size && known->mtime_ns == st.mtime_ns) {
    st.hash = known->hash;
    return true;
  }
  auto data = read_host_file(host);
  if (!data) return false;
  st.hash = sha256_hex(*data);
  return true;
}

void FatMount::scan_as_written() {
  files_.clear();
  dirs_.clear();
  TreeListing t = list_tree(dir_);
  for (auto& d : t.dirs) dirs_.insert(d);
  for (auto& f : t.files) {
    FileState st;
    if (current_state(f, st, nullptr)) files_[f] = st;
  }
}

bool FatMount::write_back(std::string* error) {
  TreeListing t = list_tree(dir_);
  std::map<std::string, FileState> now;
  for (auto& f : t.files) {
    auto it = files_.find(f);
    FileState st;
    if (current_state(f, st, it == files_.end() ? nullptr : &it->second)) now[f] = st;
  }
  std::set<std::string> now_dirs(t.dirs.begin(), t.dirs.end());
  std::string err;
  bool ok = true;
  auto fail = [&](const std::string& what) {
    ok = false;
    if (error) *error += what + (err.empty() ? "" : ": " + trim(err)) + "; ";
    err.clear();
  };

  // Deletions first: they free room, and a file may have become a directory or back.
  std::vector<std::string> gone_files;
  for (auto& [rel, st] : files_)
    if (!now.count(rel)) gone_files.push_back(rel);
  if (!gone_files.empty()) {
    std::vector<std::string> argv = {"mdel", "-i", image_};
    for (auto& g : gone_files) argv.push_back(image_path(g));
    if (mtools(argv, nullptr, &err) != 0) fail("mdel failed");
    for (auto& g : gone_files) files_.erase(g);
  }
  std::vector<std::string> gone_dirs;
  for (auto& d : dirs_)
    if (!now_dirs.count(d)) gone_dirs.push_back(d);
  // Deepest first, so that a directory is empty when it goes.
  std::sort(gone_dirs.begin(), gone_dirs.end(), [](const std::string& a, const std::string& b) {
    return std::count(a.begin(), a.end(), '/') > std::count(b.begin(), b.end(), '/');
  });
  for (auto& d : gone_dirs) {
    if (mtools({"mrd", "-i", image_, image_path(d)}, nullptr, &err) != 0) fail("mrd " + d + " failed");
    dirs_.erase(d);
  }
  // New directories, parents before children (the listing is sorted that way).
  for (auto& d : t.dirs) {
    if (dirs_.count(d)) continue;
    if (mtools({"mmd", "-i", image_, image_path(d)}, nullptr, &err) != 0) fail("mmd " + d + " failed");
    dirs_.insert(d);
  }
  // New and changed files, one mcopy per directory.
  std::map<std::string, std::vector<std::string>> by_dir;
  for (auto& [rel, st] : now) {
    auto it = files_.find(rel);
    if (it != files_.end() && it->second.hash == st.hash) {
      it->second = st;
      continue;
    }
    size_t s = rel.find_last_of('/');
    by_dir[s == std::string::npos ? "" : rel.substr(0, s)].push_back(rel);
  }
  for (auto& [d, rels] : by_dir) {
    std::vector<std::string> argv = {"mcopy", "-o", "-i", image_};
    for (auto& r : rels) argv.push_back(join_path(dir_, r));
    argv.push_back(d.empty() ? "::/" : image_path(d) + "/");
    if (mtools(argv, nullptr, &err) != 0) {
      fail("mcopy into " + (d.empty() ? std::string("/") : d) + " failed");
      continue;
    }
    for (auto& r : rels) files_[r] = now[r];
  }
  for (auto& o : t.others) {
    err.clear();
    fail("not a file or directory, left out: " + o);
  }
  return ok;
}

}  // namespace tavisim
