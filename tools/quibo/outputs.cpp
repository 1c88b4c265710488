#include "outputs.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "problem.h"

namespace quibo::recordings {

void make_folder(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error || !std::filesystem::is_directory(path)) {
    throw FileProblem("cannot make the folder " + path + ": " +
                      (error ? error.message() : strerror(ENOTDIR)));
  }
}

OutputFile::OutputFile(const std::string& path)
    : path_(path), part_(path + ".part"), file_(fopen(part_.c_str(), "wbe")) {
  if (!file_) fail();
}

OutputFile::~OutputFile() {
  if (file_) fclose(file_);
  if (!kept_) unlink(part_.c_str());
}

void OutputFile::fail() const {
  throw FileProblem("cannot write " + path_ + ": " + strerror(errno));
}

void OutputFile::write(const void* data, size_t size) {
  if (fwrite(data, 1, size, file_) != size) fail();
}

void OutputFile::write_at(long position, const void* data, size_t size) {
  if (fseek(file_, position, SEEK_SET) != 0) fail();
  write(data, size);
}

void OutputFile::finish() {
  FILE* file = file_;
  file_ = nullptr;
  if (fclose(file) != 0) fail();
}

void OutputFile::keep() {
  if (rename(part_.c_str(), path_.c_str()) != 0) fail();
  kept_ = true;
}

namespace {

class Header {
 public:
  Header& tag(const char* text) {
    bytes.insert(bytes.end(), text, text + 4);
    return *this;
  }
  Header& number(uint64_t value, int size) {
    for (int i = 0; i < size; ++i) bytes.push_back(static_cast<char>(value >> (8 * i)));
    return *this;
  }
  std::vector<char> bytes;
};

}  // namespace

// The chunk in front of the format is room for the sizes of an RF64 file (EBU Tech 3306); a WAV
// reader passes it over.
void WavFile::write_header() {
  constexpr uint64_t kSizes = 28, kFormat = 16, kSampleSize = sizeof(int16_t), kHeader = 80;
  constexpr uint32_t kElsewhere = 0xFFFFFFFF;
  const uint64_t data = samples_ * kSampleSize, riff = kHeader - 8 + data;
  const bool large = riff >= kElsewhere;
  Header h;
  h.tag(large ? "RF64" : "RIFF").number(large ? kElsewhere : riff, 4).tag("WAVE");
  h.tag(large ? "ds64" : "JUNK").number(kSizes, 4);
  h.number(large ? riff : 0, 8)
      .number(large ? data : 0, 8)
      .number(large ? samples_ / channels_ : 0, 8)
      .number(0, 4);
  h.tag("fmt ").number(kFormat, 4).number(1, 2).number(channels_, 2);
  h.number(rate_, 4).number(rate_ * channels_ * kSampleSize, 4);
  h.number(channels_ * kSampleSize, 2).number(8 * kSampleSize, 2);
  h.tag("data").number(large ? kElsewhere : data, 4);
  file_.write_at(0, h.bytes.data(), h.bytes.size());
}

WavFile::WavFile(const std::string& path, int channels, int rate)
    : file_(path), channels_(static_cast<uint64_t>(channels)), rate_(static_cast<uint64_t>(rate)) {
  write_header();
}

void WavFile::write(const int16_t* samples, int count) {
  file_.write(samples, static_cast<size_t>(count) * sizeof *samples);
  samples_ += static_cast<uint64_t>(count);
}

void WavFile::finish() {
  write_header();
  file_.finish();
}

}  // namespace quibo::recordings
