// files: unnamed work files of bytes.
//
// A file is a growing array in memory with a position. The module writes a Jacobian or the matrix
// of a quadratic by columns and reads it back many times, so that a disk would only be slower, and
// there is no name that could clash and no file that could stay behind. A file belongs to the frame
// of the call that opened it and goes with it at the latest.
#include "host/files.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

#include "embed/task.h"

namespace tqnlp {

using embed::Fault;
using embed::Task;

// Answers of the operations.
static constexpr int DONE = 0;
static constexpr int FAILED = 1;     // planned by a test, or a file that is not open
static constexpr int NO_SPACE = 2;   // the file cannot grow
static constexpr int PAST_END = 3;   // fewer bytes are left than were asked for
static constexpr int BAD_VALUE = 4;  // a negative position or length

// Counts an operation; is it one that a test wants to fail?
static bool planned_failure(Task& task) {
  return task.faults[static_cast<int>(Fault::file_operation)].strikes();
}

int xcopen(WorkFile** handle, const WorkFileOptions*) {
  Task& task = embed::current_task();
  *handle = nullptr;
  if (planned_failure(task)) return FAILED;
  auto& files = task.frame().files;
  files.push_back(std::make_unique<WorkFile>());
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
  const std::size_t size = handle->bytes.size();
  if (handle->position > size || count > size - handle->position) return PAST_END;
  if (count > 0) std::memcpy(buffer, handle->bytes.data() + handle->position, count);
  handle->position += count;
  return DONE;
}

// Writing beyond the end fills the gap with zero bytes.
int xcwrite(WorkFile* handle, const void* buffer, long length) {
  if (planned_failure(embed::current_task()) || handle == nullptr) return FAILED;
  if (length < 0) return BAD_VALUE;
  const auto count = static_cast<std::size_t>(length);
  if (count > handle->bytes.max_size() - std::min(handle->position, handle->bytes.max_size()))
    return NO_SPACE;
  const std::size_t end = handle->position + count;
  if (end > handle->bytes.size()) {
    try {
      // Doubling keeps a file that is written in many small pieces at linear cost.
      if (end > handle->bytes.capacity())
        handle->bytes.reserve(std::max(end, 2 * handle->bytes.capacity()));
      handle->bytes.resize(end);
    } catch (const std::bad_alloc&) {
      return NO_SPACE;
    } catch (const std::length_error&) {
      return NO_SPACE;
    }
  }
  if (count > 0) std::memcpy(handle->bytes.data() + handle->position, buffer, count);
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
