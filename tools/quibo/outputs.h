// Files that are either whole or not there: written beside their name, then renamed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "quibo/quibo.h"

namespace quibo::recordings {

// Creates a folder and those above it. Throws FileProblem.
void make_folder(const std::string& path);

class OutputFile {
 public:
  // Throws FileProblem where the file cannot be made.
  explicit OutputFile(const std::string& path);
  ~OutputFile();  // removes what was not kept
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(const void* data, size_t size);  // throws FileProblem
  void write_at(long position, const void* data, size_t size);
  void finish();  // nothing more is written; throws FileProblem
  void keep();    // gives the finished file its name; throws FileProblem

 private:
  [[noreturn]] void fail() const;

  std::string path_, part_;
  FILE* file_;
  bool kept_ = false;
};

// 16 bit; RF64 where WAV's 4 GiB do not suffice.
class WavFile {
 public:
  explicit WavFile(const std::string& path, int channels = 1, int rate = QUIBO_SAMPLE_RATE);
  void write(const int16_t* samples, int count);  // of all channels, interleaved
  void finish();
  void keep() { file_.keep(); }

 private:
  void write_header();

  OutputFile file_;
  uint64_t channels_, rate_, samples_ = 0;
};

}  // namespace quibo::recordings
