// The demonstration driver on any recording, a front end that reports any wake and angle, and files
// that fail at any byte: the driver ends, says so by its status, and writes whole frames only.

#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>

#include "fuzz/input.h"
#include "quibo/quibo.h"

using quibo_fuzz::Input;
using quibo_fuzz::require;

namespace {

// Bytes, and how many of them can be read or written before an error; none when negative.
struct File {
  std::vector<uint8_t> bytes;
  size_t position;
  int good;
  bool failed, open;
};

File recording, output;
Input* script;
bool creation_fails;

// How much of `size` the file takes before it fails.
ssize_t taken(File* file, size_t size) {
  if (file->good >= 0 && file->position + size > static_cast<size_t>(file->good)) {
    file->failed = true;
    errno = EIO;
    return -1;
  }
  return static_cast<ssize_t>(size);
}

ssize_t read_file(void* cookie, char* to, size_t size) {
  File* file = static_cast<File*>(cookie);
  const size_t left = file->bytes.size() - file->position;
  const ssize_t n = taken(file, size < left ? size : left);
  if (n <= 0) return n;
  memcpy(to, file->bytes.data() + file->position, static_cast<size_t>(n));
  file->position += static_cast<size_t>(n);
  return n;
}

ssize_t write_file(void* cookie, const char*, size_t size) {
  File* file = static_cast<File*>(cookie);
  const ssize_t n = taken(file, size);
  if (n < 0) return 0;  // how a cookie reports an error
  file->position += size;
  return n;
}

int close_file(void* cookie) {
  static_cast<File*>(cookie)->open = false;
  return 0;
}

FILE* streams[2];

FILE* open_scripted(const char*, const char* mode) {
  const bool writes = mode[0] == 'w';
  File* file = writes ? &output : &recording;
  if (file->good == 0 && file->bytes.empty()) {
    file->failed = true;
    errno = EACCES;
    return nullptr;
  }
  file->open = true;
  return streams[writes] = fopencookie(file, mode, {read_file, write_file, nullptr, close_file});
}

}  // namespace

#define main driver_main
#define fopen open_scripted
#include "tools/quibo_demo.cpp"
#undef fopen
#undef main

int32_t Quibo_wakeup_init(KTWakeup* handle, int32_t) {
  static char self;
  *handle = reinterpret_cast<KTWakeup>(&self);
  return creation_fails ? -3 : 0;
}

int32_t Quibo_wakeup_three_write_data(KTWakeup, int16_t* mic1_data, int16_t*, int16_t*,
                                      const int16_t*, int16_t* outdata1, int16_t* outdata2,
                                      int16_t* outdata3, int16_t* naecout) {
  for (int16_t* out : {outdata1, outdata2, outdata3, naecout}) {
    memcpy(out, mic1_data, QUIBO_FRAME * sizeof *out);
  }
  return 0;
}

int32_t Quibo_doa_three_write_data(KTWakeup, int32_t* Iswakeup, const int16_t*, const int16_t*,
                                   const int16_t*, const int16_t*, int32_t) {
  *Iswakeup = script->choose(4) ? -1 : script->any<int32_t>();
  return script->choose(4) ? -1 : script->any<int32_t>();
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  script = &in;
  constexpr int kFrameBytes = kChannels * QUIBO_FRAME * 2;
  creation_fails = in.choose(16) == 1;
  recording = {std::vector<uint8_t>(in.any<uint16_t>() % (4 * kFrameBytes), in.byte()), 0,
               in.choose(4) ? -1 : in.any<uint16_t>(), false, false};
  output = {{}, 0, in.choose(4) ? -1 : in.any<uint16_t>() % 8192, false, false};
  const int status = driver_main();
  for (FILE*& stream : streams) {
    File* file = &stream == streams ? &recording : &output;
    if (stream && file->open) fclose(stream);
    stream = nullptr;
  }
  require(status == (creation_fails || recording.failed || output.failed ? 1 : 0));
  if (status == 0) {
    require(output.position == recording.bytes.size() / kFrameBytes * QUIBO_FRAME * 2);
  }
  return 0;
}
