#include "recording.h"

#include <errno.h>
#include <fcntl.h>
#include <sndfile.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "problem.h"

namespace quibo::recordings {

namespace {

constexpr int kMaxChannels = 64, kMinRate = 8000, kMaxRate = 384000;

struct SampleFormat {
  const char* name;
  int code;
  int bits;
};
constexpr SampleFormat kSampleFormats[] = {
    {"u8", SF_FORMAT_PCM_U8, 8},   {"s8", SF_FORMAT_PCM_S8, 8},   {"s16", SF_FORMAT_PCM_16, 16},
    {"s24", SF_FORMAT_PCM_24, 24}, {"s32", SF_FORMAT_PCM_32, 32}, {"f32", SF_FORMAT_FLOAT, 32},
};

std::string seconds(int64_t frames, int rate) {
  char text[32];
  snprintf(text, sizeof text, "%.2f s", static_cast<double>(frames) / rate);
  return text;
}

std::string name_of(SNDFILE* file, int what, int code) {
  SF_FORMAT_INFO info = {};
  info.format = code;
  return sf_command(file, what, &info, sizeof info) == 0 && info.name ? info.name : "unknown";
}

// "WAV, 16 bit"
std::string describe(int format) {
  std::string major = name_of(nullptr, SFC_GET_FORMAT_INFO, format & SF_FORMAT_TYPEMASK);
  major = major.substr(0, major.find(' '));
  for (const SampleFormat& f : kSampleFormats) {
    if ((format & SF_FORMAT_SUBMASK) != f.code) continue;
    return major + ", " + std::to_string(f.bits) + " bit" +
           (f.code == SF_FORMAT_FLOAT ? " float" : "");
  }
  return major + ", " + name_of(nullptr, SFC_GET_FORMAT_INFO, format & SF_FORMAT_SUBMASK);
}

}  // namespace

struct Recording::File {
  SNDFILE* handle = nullptr;
  int descriptor = -1;
  ~File() {
    if (handle) sf_close(handle);
    if (descriptor > STDERR_FILENO) close(descriptor);
  }
};

RawFormat parse_raw_format(const std::string& text) {
  RawFormat raw{};
  std::stringstream stream(text);
  std::string part;
  for (int i = 0; std::getline(stream, part, ','); ++i) {
    if (i == 0) raw.channels = atoi(part.c_str());
    if (i == 1) raw.rate = atoi(part.c_str());
    if (i == 2) raw.sample = part;
    if (i > 2) raw.channels = 0;
  }
  bool known = false;
  for (const SampleFormat& f : kSampleFormats) known |= raw.sample == f.name;
  if (!known || raw.channels < 1 || raw.channels > kMaxChannels || raw.rate < kMinRate ||
      raw.rate > kMaxRate) {
    throw WrongUse(
        "headerless samples are described by CHANNELS[,RATE[,SAMPLE]], such as 4,16000,s16, not "
        "\"" +
        text + "\"; SAMPLE is u8, s8, s16, s24, s32 or f32");
  }
  return raw;
}

Recording::Recording(const std::string& path, const std::optional<RawFormat>& raw)
    : file_(new File) {
  const bool standard_input = path == "-";
  file_->descriptor = standard_input ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status = {};
  if (file_->descriptor < 0 || fstat(file_->descriptor, &status) != 0)
    throw FileProblem(strerror(errno));
  if (S_ISDIR(status.st_mode)) throw FileProblem("this is a folder, not a recording");
  if (S_ISREG(status.st_mode) && status.st_size == 0) throw FileProblem("the file is empty");

  SF_INFO info = {};
  if (raw) {
    info.channels = raw->channels;
    info.samplerate = raw->rate;
    for (const SampleFormat& f : kSampleFormats) {
      if (raw->sample == f.name) info.format = SF_FORMAT_RAW | SF_ENDIAN_LITTLE | f.code;
    }
  }
  file_->handle = sf_open_fd(file_->descriptor, SFM_READ, &info, SF_FALSE);
  if (!file_->handle) {
    throw FileProblem(std::string("not a recording that can be read (") + sf_strerror(nullptr) +
                      "); headerless samples need --raw");
  }
  channels_ = info.channels;
  rate_ = info.samplerate;
  if (channels_ > kMaxChannels)
    throw FileProblem(std::to_string(channels_) + " channels are too many");
  if (rate_ < kMinRate || rate_ > kMaxRate) {
    throw FileProblem("a sample rate of " + std::to_string(rate_) + " Hz cannot be used");
  }
  frames_ = info.seekable ? info.frames : -1;
  sixteen_bits_ = (info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16;
  format_ = describe(info.format);
  if (frames_ == 0) throw FileProblem("the file holds no samples");
  if (!raw) look_for_cut();
}

Recording::~Recording() = default;

// A WAV file says how long its samples are; libsndfile notes where the file is shorter than that.
void Recording::look_for_cut() {
  char log[8192] = "";
  sf_command(file_->handle, SFC_GET_LOG_INFO, log, sizeof log);
  const char* line = strstr(log, "\ndata : ");
  long long promised = 0, there = 0;
  if (!line || sscanf(line, "\ndata : %lld (should be %lld)", &promised, &there) != 2) return;
  constexpr long long kOpenEnded =
      0x7FFFFFFF - 65536;  // a length that a stream's writer could not know
  if (promised < there || promised >= kOpenEnded || there <= 0) return;
  warnings_.push_back("the file is cut short: " + seconds(frames_, rate_) + " of " +
                      seconds(frames_ * promised / there, rate_) + " are there");
}

int64_t Recording::read(float* interleaved, int64_t frames) {
  const int64_t got = sf_readf_float(file_->handle, interleaved, frames);
  if (got > 0) {
    read_ += got;
    return got;
  }
  if (ended_) return 0;
  ended_ = true;
  const int error = sf_error(file_->handle);
  if (read_ == 0) throw FileProblem("no samples can be read");
  if (error != SF_ERR_NO_ERROR) {
    warnings_.push_back("the file is damaged after " + seconds(read_, rate_) +
                        ": the rest is left out");
  } else if (frames_ > read_) {
    warnings_.push_back("the file is cut short: " + seconds(read_, rate_) + " of " +
                        seconds(frames_, rate_) + " are there");
  }
  return 0;
}

}  // namespace quibo::recordings
