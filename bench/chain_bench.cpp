// The whole front end, frame by frame: time per frame in each module on a capture and in the silence
// after it, heap and stack. Writes JSON; bench/report.py reads it.
//
//   chain_bench CAPTURE OUTPUT [SILENT_FRAMES]

#include <malloc.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dsp/kernels.h"
#include "quibo/quibo.h"

namespace {

constexpr int kChannels = 6;
constexpr int kFrame = QUIBO_FRAME;

enum Module { kCodec, kCanceller, kEchoSuppressor, kNoiseSuppressor, kWakeUp, kDirection, kTotal };
constexpr const char* kNames[] = {
    "codec", "cancellers", "echo suppressor", "noise suppressors", "wake-up", "direction", "total"};
constexpr int kModules = kTotal + 1;

double spent[kModules];  // microseconds of the current frame

// Microseconds that the processor has worked for this thread.
double now() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return 1e6 * static_cast<double>(t.tv_sec) + 1e-3 * static_cast<double>(t.tv_nsec);
}

// Adds the time until the end of the scope.
class Timer {
 public:
  explicit Timer(Module module) : module_(module) {}
  ~Timer() { spent[module_] += now() - start_; }

 private:
  Module module_;
  double start_ = now();
};

}  // namespace

// The linker sends the front end's calls here (--wrap).
#define TIMED(module, result, name, parameters, arguments) \
  extern "C" result __real_##name parameters;              \
  extern "C" result __wrap_##name parameters {             \
    const Timer timer(module);                             \
    return __real_##name arguments;                        \
  }
TIMED(kCodec, void, dec_data, (int16_t * x, int32_t len), (x, len))
TIMED(kCanceller, int32_t, kesto_Laec_Post_write,
      (void* h, const int16_t* mic, const int16_t* ref, float* out), (h, mic, ref, out))
TIMED(kEchoSuppressor, int32_t, QuibNAecRun,
      (void* h, const float* mic, const float* yn, int16_t* out), (h, mic, yn, out))
TIMED(kNoiseSuppressor, int32_t, QuibAncRun, (void* h, const int16_t* in, int16_t* out),
      (h, in, out))
TIMED(kWakeUp, int32_t, QuibWakeupWriteData, (void* h, const int16_t* x), (h, x))
TIMED(kDirection, int32_t, kesto_customs_doa_write,
      (KTDHandle h, const int16_t* a, const int16_t* b, const int16_t* c, int16_t* out,
       int32_t woken),
      (h, a, b, c, out, woken))

namespace {

using Frames = std::vector<int16_t>;

Frames read_capture(const char* path) {
  Frames samples;
  if (FILE* file = fopen(path, "rb")) {
    int16_t buffer[kChannels * kFrame];
    while (fread(buffer, sizeof buffer, 1, file) == 1) {
      samples.insert(samples.end(), buffer, buffer + kChannels * kFrame);
    }
    fclose(file);
  }
  return samples;
}

// One pass over `capture`; times[m] receives module m's time of each frame.
void play(const Frames& capture, std::vector<double> (&times)[kModules]) {
  KTWakeup front_end = nullptr;
  if (Quibo_wakeup_init(&front_end, 0) != 0) exit(1);
  for (size_t at = 0; at < capture.size(); at += kChannels * kFrame) {
    int16_t in[kChannels][kFrame], out[3][kFrame], naec[kFrame];
    for (int i = 0; i < kFrame; ++i) {
      for (int c = 0; c < kChannels; ++c) in[c][i] = capture[at + kChannels * i + c];
    }
    std::fill(spent, spent + kModules, 0.0);
    {
      const Timer timer(kTotal);
      Quibo_wakeup_three_write_data(front_end, in[0], in[1], in[2], in[4], out[0], out[1], out[2],
                                    naec);
      int32_t wake;
      Quibo_doa_three_write_data(front_end, &wake, out[0], out[1], out[2], naec, kFrame);
    }
    for (int m = 0; m < kModules; ++m) times[m].push_back(spent[m]);
  }
  Quibo_wakeup_unit(front_end);
}

// Of the frames from `first` on.
void print_times(FILE* out, const char* name, const Frames& capture, size_t first) {
  std::vector<double> times[kModules];
  play(capture, times);
  fprintf(out, ",\n\"%s\": {", name);
  for (int m = 0; m < kModules; ++m) {
    fprintf(out, "%s\"%s\": [", m > 0 ? ",\n" : "", kNames[m]);
    for (size_t i = first; i < times[m].size(); ++i)
      fprintf(out, "%s%.2f", i > first ? "," : "", times[m][i]);
    fprintf(out, "]");
  }
  fprintf(out, "}");
}

constexpr size_t kStack = 1 << 20;

void* play_on_stack(void* capture) {
  std::vector<double> times[kModules];
  play(*static_cast<const Frames*>(capture), times);
  return nullptr;
}

// Bytes of stack in use at most, our own buffers of some 20 KiB included.
size_t stack_use(Frames capture) {
  void* memory = nullptr;
  if (posix_memalign(&memory, 4096, kStack) != 0) return 0;
  memset(memory, 0xa5, kStack);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, memory, kStack);
  pthread_t thread;
  if (pthread_create(&thread, &attributes, play_on_stack, &capture) != 0) return 0;
  pthread_join(thread, nullptr);
  const unsigned char* bytes = static_cast<unsigned char*>(memory);
  const unsigned char* top = bytes + kStack;
  const size_t used = static_cast<size_t>(
      top - std::find_if(bytes, top, [](unsigned char b) { return b != 0xa5; }));
  free(memory);
  return used;
}

size_t heap_use() {
  const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  KTWakeup front_end = nullptr;
  if (Quibo_wakeup_init(&front_end, 0) != 0) exit(1);
  const size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
  Quibo_wakeup_unit(front_end);
  return after - before;
}

}  // namespace

int main(int argc, char** argv) {
  Frames capture = argc > 1 ? read_capture(argv[1]) : Frames();
  FILE* out = argc > 2 ? fopen(argv[2], "w") : nullptr;
  if (capture.empty() || !out) {
    fprintf(stderr, "usage: chain_bench CAPTURE OUTPUT [SILENT_FRAMES]\n");
    return 1;
  }
  const size_t silent = argc > 3 ? static_cast<size_t>(atoi(argv[3])) : 0;
  const size_t frame = kChannels * kFrame, heard = capture.size() / frame;
  const size_t heap = heap_use();
  const size_t stack = stack_use(Frames(capture.begin(), capture.begin() + 20 * frame));
  fprintf(out, "{\"kernels\": \"%s\", \"heap\": %zu, \"stack\": %zu", quibo::kernels().name, heap,
          stack);
  print_times(out, "recording", capture, 0);
  if (silent > 0) {
    capture.resize(capture.size() + silent * frame);
    print_times(out, "silence", capture, heard);
  }
  fprintf(out, "}\n");
  fclose(out);
  return 0;
}
