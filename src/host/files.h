// Host services: unnamed work files of bytes, that live for the call.
#pragma once

namespace tqnlp {

struct WorkFile;  // a type of the host

struct WorkFileOptions {
  long record = 0;  // expected length of one transfer in bytes, 0 unknown
};

// All answer 0, or a nonzero code when the operation failed. Reading or writing moves the position
// on; xcclose with discard 1 removes the file, and accepts null.
int xcopen(WorkFile** handle, const WorkFileOptions* options);
int xcpoint(WorkFile* handle, long position);
int xcread(WorkFile* handle, void* buffer, long length);
int xcwrite(WorkFile* handle, const void* buffer, long length);
int xcclose(WorkFile* handle, int discard);

}  // namespace tqnlp
