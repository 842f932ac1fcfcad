#include "localization/durable_save.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "localization/durable_save_testing.h"

namespace zorvane {
namespace localization {
namespace internal {

namespace {
const DurableSaveFileOps kSystemFileOps = {&::write, &::fsync, &::rename};
DurableSaveFileOps file_ops = kSystemFileOps;
}  // namespace

DurableSaveFileOps& durableSaveFileOps() { return file_ops; }
void resetDurableSaveFileOps() { file_ops = kSystemFileOps; }

}  // namespace internal

namespace {

// The signed 32-bit lengths of the file bound a map to (2^31 - 1 - 61) / 22
// cells; saveToFile refuses more, and so do we.
constexpr std::uint64_t kMaxCells = 97612890;
// Bytes handed to one write call; Linux moves at most about 2 GiB per call.
constexpr std::size_t kMaxWriteChunk = std::size_t{1} << 30;

std::string systemReason(int err) { return std::strerror(err); }

// Sum of two lengths as saveToFile forms it: signed 32-bit, wrapping.
std::int32_t addLengths(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

// Fills *out with the bytes saveToFile would write; false with the reason in
// *why when it would write none.
bool encodeMap(GridMapBase& map, std::vector<char>* out, std::string* why) {
  const std::uint64_t cells = map.matrix().cells_.size();
  if (cells == 0) {
    *why = "the map has no cells";
    return false;
  }
  if (cells > kMaxCells) {
    *why = "the map has " + std::to_string(cells) + " cells, more than the file format's " +
           std::to_string(kMaxCells);
    return false;
  }
  const std::int32_t length = addLengths(map.getHeaderBinarySize() + 16, map.getBodyBinarySize());
  if (length <= 0) {
    *why = "the encoded length " + std::to_string(length) + " is out of range";
    return false;
  }
  try {
    out->assign(static_cast<std::size_t>(length), 0);
  } catch (const std::bad_alloc&) {
    *why = "not enough memory for " + std::to_string(length) + " bytes";
    return false;
  }
  const int h = map.addHeaderBinary(out->data());
  if (h <= 0 || h > length) {
    *why = "the encoder refused the header (" + std::to_string(h) + ")";
    return false;
  }
  const int b = map.addBodyBinary(out->data() + h);
  if (b <= 0) {
    *why = "the encoder refused the cells (" + std::to_string(b) + ")";
    return false;
  }
  if (addLengths(h, b) != length) {
    *why = "header and body (" + std::to_string(h) + " + " + std::to_string(b) +
           " bytes) differ from the encoded length " + std::to_string(length);
    return false;
  }
  return true;
}

const char* fileKind(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  return "not a regular file";
}

// Where the map goes: the file to replace (a followed link resolved), its
// directory and name, and the permission bits to keep.
struct Target {
  std::string file;
  std::string dir;
  std::string name;
  bool exists = false;
  mode_t mode = 0;
};

bool resolveTarget(const std::string& path, Target* t, std::string* why) {
  if (path.empty()) {
    *why = "the path is empty";
    return false;
  }
  t->file = path;
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0) {
    if (S_ISLNK(st.st_mode)) {
      char* resolved = ::realpath(path.c_str(), nullptr);
      if (resolved == nullptr) {
        *why = "cannot follow the symbolic link: " + systemReason(errno);
        return false;
      }
      t->file = resolved;
      std::free(resolved);
      if (::stat(t->file.c_str(), &st) != 0) {
        *why = "cannot read the status of " + t->file + ": " + systemReason(errno);
        return false;
      }
    }
    if (!S_ISREG(st.st_mode)) {
      *why = std::string("it exists and is ") + fileKind(st.st_mode) + "; only a regular file is replaced";
      return false;
    }
    t->exists = true;
    t->mode = st.st_mode & 07777;
  } else if (errno != ENOENT) {
    *why = "cannot read its status: " + systemReason(errno);
    return false;
  }
  const std::size_t slash = t->file.rfind('/');
  t->name = slash == std::string::npos ? t->file : t->file.substr(slash + 1);
  t->dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : t->file.substr(0, slash));
  if (t->name.empty() || t->name == "." || t->name == "..") {
    *why = "the path does not name a file";
    return false;
  }
  return true;
}

// A temporary file ".<name>.tmp.XXXXXX" beside the target, created (never
// opened if it exists) with 0644 less the umask. Returns the descriptor or
// -1 with *why set.
int createTemporary(const Target& t, std::string* tmp_path, std::string* why) {
  static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  static std::atomic<unsigned> counter{0};
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  // Distinct per call and process; the names need not be unpredictable,
  // since O_EXCL never opens a file that someone else placed there.
  std::uint64_t seed = static_cast<std::uint64_t>(now.tv_nsec) ^
                       (static_cast<std::uint64_t>(now.tv_sec) << 20) ^
                       (static_cast<std::uint64_t>(::getpid()) << 40) ^
                       ((counter.fetch_add(1) + 1ull) * 0x9e3779b97f4a7c15ull);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string suffix;
    for (int k = 0; k < 6; ++k) {
      seed = seed * 6364136223846793005ull + 1442695040888963407ull;
      suffix += kLetters[(seed >> 33) % (sizeof kLetters - 1)];
    }
    *tmp_path = (t.dir == "/" ? "" : t.dir) + "/." + t.name + ".tmp." + suffix;
    const int fd = ::open(tmp_path->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd >= 0) return fd;
    if (errno != EEXIST) {
      *why = "cannot create " + *tmp_path + ": " + systemReason(errno);
      return -1;
    }
  }
  *why = "cannot create a temporary file in " + t.dir + ": every name tried exists";
  return -1;
}

bool writeAll(int fd, const char* data, std::size_t bytes, std::string* why) {
  const internal::DurableSaveFileOps& ops = internal::durableSaveFileOps();
  std::size_t done = 0;
  while (done < bytes) {
    const std::size_t chunk = bytes - done < kMaxWriteChunk ? bytes - done : kMaxWriteChunk;
    const ssize_t n = ops.write(fd, data + done, chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      *why = systemReason(errno);
      return false;
    }
    if (n == 0) {  // no error and no progress: retrying could loop forever
      *why = "the write made no progress after " + std::to_string(done) + " bytes";
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Makes the rename itself durable. Returns "" or why not. File systems that
// cannot sync a directory (EINVAL) need no such sync.
std::string syncDirectory(const std::string& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return "cannot open the directory " + dir + ": " + systemReason(errno);
  std::string why;
  if (internal::durableSaveFileOps().fsync(fd) != 0 && errno != EINVAL) {
    why = "cannot sync the directory " + dir + ": " + systemReason(errno);
  }
  ::close(fd);
  return why;
}

}  // namespace

MapSaveResult saveMapDurably(GridMapBase& map, const std::string& path) {
  MapSaveResult result;
  const auto refuse = [&](const std::string& why) {
    result.ok = false;
    result.error = "cannot save map to " + path + ": " + why;
    return result;
  };

  std::string why;
  std::vector<char> bytes;
  if (!encodeMap(map, &bytes, &why)) return refuse(why);
  Target target;
  if (!resolveTarget(path, &target, &why)) return refuse(why);

  std::string tmp;
  int fd = createTemporary(target, &tmp, &why);
  if (fd < 0) return refuse(why);
  // From here on every failure removes the temporary file.
  const auto abandon = [&](const std::string& reason) {
    if (fd >= 0) ::close(fd);
    ::unlink(tmp.c_str());
    return refuse(reason);
  };
  const internal::DurableSaveFileOps& ops = internal::durableSaveFileOps();
  if (!writeAll(fd, bytes.data(), bytes.size(), &why)) return abandon("writing " + tmp + ": " + why);
  if (target.exists && ::fchmod(fd, target.mode) != 0) {
    return abandon("setting the permissions of " + tmp + ": " + systemReason(errno));
  }
  if (ops.fsync(fd) != 0) return abandon("syncing " + tmp + ": " + systemReason(errno));
  const int closed = ::close(fd);
  fd = -1;
  if (closed != 0) return abandon("closing " + tmp + ": " + systemReason(errno));
  if (ops.rename(tmp.c_str(), target.file.c_str()) != 0) {
    return abandon("renaming " + tmp + " to " + target.file + ": " + systemReason(errno));
  }
  why = syncDirectory(target.dir);
  if (!why.empty()) return refuse("the new map is in place, but " + why);
  result.ok = true;
  return result;
}

}  // namespace localization
}  // namespace zorvane
