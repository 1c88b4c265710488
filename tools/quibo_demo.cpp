// The demonstration driver: a six-channel capture through one front end, frame by frame. Fixed file
// names, no arguments; `./run demo` prepares the input.
//
// Input: headerless interleaved int16, 16 kHz; channels 0..2 are the microphones in the scrambled
// encoding, channel 4 the loudspeaker reference. Output: what is left of microphone 1, headerless
// int16. Exit status 1, after one line on standard error, when anything cannot be read or written.

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "quibo/quibo.h"

namespace {

constexpr char kInput[] = "./wav/input_frame_20251107_140756.pcm";
constexpr char kOutput[] = "./wav2/nnaec.pcm";
constexpr int kChannels = 6;
constexpr unsigned kFrameMs = 1000 * QUIBO_FRAME / QUIBO_SAMPLE_RATE;

int cannot(const char* what, const char* path) {
  fprintf(stderr, "quibo_demo: cannot %s %s: %s\n", what, path, strerror(errno));
  return 1;
}

bool same_file(FILE* file, const char* path) {
  struct stat a, b;
  return fstat(fileno(file), &a) == 0 && stat(path, &b) == 0 && a.st_dev == b.st_dev &&
         a.st_ino == b.st_ino;
}

// Opening a directory for reading succeeds; reading it fails.
bool readable(FILE* file) {
  ungetc(fgetc(file), file);
  return !ferror(file);
}

void pick_channel(const int16_t* interleaved, int channel, int16_t* out) {
  for (int i = 0; i < QUIBO_FRAME; ++i) out[i] = interleaved[kChannels * i + channel];
}

}  // namespace

int main() {
  // The input first: without a recording no empty output is left behind, and opening the output
  // empties it, which must not be the recording.
  FILE* input = fopen(kInput, "rb");
  if (!input) return cannot("open", kInput);
  if (!readable(input)) return cannot("read", kInput);
  if (same_file(input, kOutput)) {
    fprintf(stderr, "quibo_demo: %s is the input itself\n", kOutput);
    return 1;
  }
  FILE* output = fopen(kOutput, "wb+");
  if (!output) return cannot("open", kOutput);

  // Static, and neither released nor closed below: the process ends with the recording.
  static KTWakeup front_end = nullptr;
  if (Quibo_wakeup_init(&front_end, 0) != 0) {
    fprintf(stderr, "quibo_demo: the front end could not be created\n");
    return 1;
  }
  printf("Quibo_wakeup_init\n");

  // Static as well: the stack is left to the library's calls.
  static int16_t capture[kChannels * QUIBO_FRAME];
  static int16_t mic1[QUIBO_FRAME], mic2[QUIBO_FRAME], mic3[QUIBO_FRAME], ref[QUIBO_FRAME];
  static int16_t out1[QUIBO_FRAME], out2[QUIBO_FRAME], out3[QUIBO_FRAME], naec[QUIBO_FRAME];
  int32_t Iswakeup = -1;
  int wakes = 0;
  unsigned frames = 0;
  unsigned t = kFrameMs;  // end of the current frame
  while (fread(capture, sizeof capture[0], kChannels * QUIBO_FRAME, input) ==
         kChannels * QUIBO_FRAME) {
    pick_channel(capture, 0, mic1);
    pick_channel(capture, 1, mic2);
    pick_channel(capture, 2, mic3);
    pick_channel(capture, 4, ref);
    Quibo_wakeup_three_write_data(front_end, mic1, mic2, mic3, ref, out1, out2, out3, naec);
    if (fwrite(naec, sizeof naec[0], QUIBO_FRAME, output) != QUIBO_FRAME) {
      return cannot("write", kOutput);
    }
    const int32_t angle =
        Quibo_doa_three_write_data(front_end, &Iswakeup, out1, out2, out3, naec, QUIBO_FRAME);
    if (angle > 0) printf("--------->Doa:%d\n", angle);  // an angle of exactly 0 is not printed
    if (Iswakeup >= 0) {
      ++wakes;
      printf("--------->is_wakeup:%d (time:%d m,%d s,%d ms)\n", Iswakeup,
             static_cast<int>(t / 60000), static_cast<int>(t / 1000 % 60),
             static_cast<int>(t % 1000));
    }
    t += kFrameMs;
    ++frames;
  }
  if (ferror(input)) return cannot("read", kInput);
  const unsigned total = kFrameMs * frames;
  printf("---end(%d): (time:%d m,%d s,%d ms)\n", wakes, static_cast<int>(total / 60000),
         static_cast<int>(total / 1000 % 60), static_cast<int>(total % 1000));
  if (fclose(output) != 0) return cannot("write", kOutput);
  if (fflush(stdout) != 0 || ferror(stdout)) return cannot("write", "to standard output");
  return 0;
}
