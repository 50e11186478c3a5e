// files: unnamed work files of bytes.
//
// A file is a growing array in memory with a position: the module writes a Jacobian or the matrix
// of a quadratic once and reads it back many times, so that a disk would only be slower. Where the
// files of a session would take more memory than it allows, or the memory is refused, the one that
// grows goes to a file in the directory of temporary files. That has no name from the moment on
// that it is open, so that nothing stays behind, however the process ends. A file belongs to the
// frame of the call that opened it and goes with it at the latest.
#include "host/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <utility>

#include "embed/task.h"

namespace tqnlp {

using embed::Fault;
using embed::Task;

// Answers of the operations.
static constexpr int DONE = 0;
static constexpr int FAILED = 1;       // planned by a test, or a file that is not open
static constexpr int NO_SPACE = 2;     // the file cannot grow
static constexpr int PAST_END = 3;     // fewer bytes are left than were asked for
static constexpr int BAD_VALUE = 4;    // a negative position or length
static constexpr int DISK_FAILED = 5;  // the log says why

static constexpr std::size_t LARGEST = PTRDIFF_MAX;

WorkFile::~WorkFile() {
  owner.work_file_bytes -= bytes.size();
  if (disk >= 0) close(disk);
}

// Counts an operation; is it one that a test wants to fail?
static bool planned_failure(Task& task) {
  return task.faults[static_cast<int>(Fault::file_operation)].strikes();
}

// ---- On the disk --------------------------------------------------------------------------------

static int disk_failed(const WorkFile& file, const std::string& what, const std::string& reason) {
  embed::add_log(file.owner, 0, 0, Severity::error,
                 "A work file of " + std::to_string(file.size) + " bytes " + what + ": " + reason +
                     ". Session::work_file_memory says how much of them stays in memory, TMPDIR " +
                     "where the others go.");
  return DISK_FAILED;
}

// Opens a file without a name. The directory is asked for at every file: TMPDIR may change.
static int create_on_disk(WorkFile& file) {
  std::error_code error;
  const std::filesystem::path directory = std::filesystem::temp_directory_path(error);
  if (error) return disk_failed(file, "could not be created on disk", error.message());
  std::string name = (directory / "tqnlp-XXXXXX").string();
  file.disk = mkostemp(name.data(), O_CLOEXEC);
  if (file.disk < 0) {
    return disk_failed(file, "could not be created in " + directory.string(), std::strerror(errno));
  }
  unlink(name.c_str());
  return DONE;
}

static int write_to_disk(const WorkFile& file, const char* from, std::size_t count,
                         std::size_t place) {
  while (count > 0) {
    const ssize_t done = pwrite(file.disk, from, count, static_cast<off_t>(place));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return disk_failed(file, "could not be written", std::strerror(errno));
    from += done;
    place += static_cast<std::size_t>(done);
    count -= static_cast<std::size_t>(done);
  }
  return DONE;
}

static int read_from_disk(const WorkFile& file, char* to, std::size_t count) {
  std::size_t place = file.position;
  while (count > 0) {
    const ssize_t done = pread(file.disk, to, count, static_cast<off_t>(place));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      return disk_failed(file, "could not be read",
                         done == 0 ? "it is shorter than it was" : std::strerror(errno));
    }
    to += done;
    place += static_cast<std::size_t>(done);
    count -= static_cast<std::size_t>(done);
  }
  return DONE;
}

static int move_to_disk(WorkFile& file) {
  int rc = create_on_disk(file);
  if (rc == DONE) rc = write_to_disk(file, file.bytes.data(), file.bytes.size(), 0);
  if (rc != DONE) {
    if (file.disk >= 0) close(std::exchange(file.disk, -1));
    return rc;
  }
  file.owner.work_file_bytes -= file.bytes.size();
  file.bytes = {};
  return DONE;
}

// ---- In memory ----------------------------------------------------------------------------------

// Lets a file in memory have `end` bytes. False when it is to go to the disk.
static bool grow(WorkFile& file, std::size_t end) {
  Task& task = file.owner;
  const std::size_t more = end - file.bytes.size();
  if (more > task.work_file_memory - std::min(task.work_file_bytes, task.work_file_memory)) {
    return false;
  }
  try {
    // Doubling keeps a file that is written in many small pieces at linear cost.
    if (end > file.bytes.capacity()) file.bytes.reserve(std::max(end, 2 * file.bytes.capacity()));
    file.bytes.resize(end);
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::length_error&) {
    return false;
  }
  task.work_file_bytes += more;
  return true;
}

// ---- The host's functions -----------------------------------------------------------------------

int xcopen(WorkFile** handle, const WorkFileOptions*) {
  Task& task = embed::current_task();
  *handle = nullptr;
  if (planned_failure(task)) return FAILED;
  auto& files = task.frame().files;
  files.push_back(std::make_unique<WorkFile>(task));
  *handle = files.back().get();
  return DONE;
}

int xcpoint(WorkFile* handle, long position) {
  if (planned_failure(embed::current_task()) || handle == nullptr) return FAILED;
  if (position < 0) return BAD_VALUE;
  handle->position = static_cast<std::size_t>(position);
  return DONE;
}

// Reads all of length bytes or nothing: a short read would hand old contents of the buffer on as
// numbers.
int xcread(WorkFile* handle, void* buffer, long length) {
  if (planned_failure(embed::current_task()) || handle == nullptr) return FAILED;
  if (length < 0) return BAD_VALUE;
  const auto count = static_cast<std::size_t>(length);
  if (handle->position > handle->size || count > handle->size - handle->position) return PAST_END;
  if (handle->disk >= 0) {
    const int rc = read_from_disk(*handle, static_cast<char*>(buffer), count);
    if (rc != DONE) return rc;
  } else if (count > 0) {
    std::memcpy(buffer, handle->bytes.data() + handle->position, count);
  }
  handle->position += count;
  return DONE;
}

// Writing beyond the end fills the gap with zero bytes.
int xcwrite(WorkFile* handle, const void* buffer, long length) {
  if (planned_failure(embed::current_task()) || handle == nullptr) return FAILED;
  if (length < 0) return BAD_VALUE;
  const auto count = static_cast<std::size_t>(length);
  if (count > LARGEST - std::min(handle->position, LARGEST)) return NO_SPACE;
  const std::size_t end = handle->position + count;
  if (handle->disk < 0 && end > handle->size && !grow(*handle, end)) {
    const int rc = move_to_disk(*handle);
    if (rc != DONE) return rc;
  }
  if (handle->disk >= 0) {
    const int rc =
        write_to_disk(*handle, static_cast<const char*>(buffer), count, handle->position);
    if (rc != DONE) return rc;
  } else if (count > 0) {
    std::memcpy(handle->bytes.data() + handle->position, buffer, count);
  }
  handle->size = std::max(handle->size, end);
  handle->position = end;
  return DONE;
}

// An unnamed file cannot be opened again, so that it goes with or without discard; it goes also
// when the answer is a planned failure.
int xcclose(WorkFile* handle, int) {
  if (handle == nullptr) return DONE;
  Task& task = embed::current_task();
  const bool failed = planned_failure(task);
  // The innermost call comes first: nearly always it is the one that opened the file.
  for (auto frame = task.frames.rbegin(); frame != task.frames.rend(); ++frame) {
    auto& files = frame->files;
    const auto place = std::find_if(files.begin(), files.end(),
                                    [handle](const auto& file) { return file.get() == handle; });
    if (place == files.end()) continue;
    files.erase(place);
    return failed ? FAILED : DONE;
  }
  return FAILED;
}

}  // namespace tqnlp
