// Recordings: what the quibo command does, by the same code.
#include "engine.h"

#ifdef QUIBO_RECORDINGS
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "tools/quibo/check_json.h"
#include "tools/quibo/events.h"
#include "tools/quibo/frames.h"
#include "tools/quibo/problem.h"
#include "tools/quibo/session.h"
#include "tools/quibo/tracks.h"

namespace quibo::python {
namespace {

using namespace quibo::recordings;

// Samples of several channels that grow until they are an array.
class Samples {
 public:
  explicit Samples(size_t channels) : channels_(channels) {}

  void add(const int16_t* const* from, int count) {
    for (size_t c = 0; c < channels_.size(); ++c) {
      channels_[c].insert(channels_[c].end(), from[c], from[c] + count);
    }
  }

  Matrix<int16_t> matrix() const {
    const size_t n = channels_[0].size();
    Output<int16_t> all(channels_.size(), n);
    for (size_t c = 0; c < channels_.size(); ++c) {
      std::copy(channels_[c].begin(), channels_[c].end(), all.row(c));
    }
    return all.matrix();
  }

 private:
  std::vector<std::vector<int16_t>> channels_;
};

InputOptions input_options(const std::string& channels, const std::string& encoding,
                           const std::string& raw) {
  InputOptions options;
  options.channels = channels;
  if (encoding == "plain") options.encoding = Encoding::kPlain;
  if (encoding == "scrambled") options.encoding = Encoding::kScrambled;
  if (!raw.empty()) options.raw = parse_raw_format(raw);
  return options;
}

auto read(const std::string& path, const std::string& channels, const std::string& encoding,
          const std::string& raw) {
  Samples samples(kTracks);
  std::vector<std::string> warnings;
  std::string about;
  {
    const nb::gil_scoped_release released;
    FileTracks tracks(path, input_options(channels, encoding, raw));
    FrameReader frames(tracks);
    Frame frame;
    while (frames.next(&frame)) {
      const int16_t* from[kTracks];
      for (int t = 0; t < kTracks; ++t) from[t] = frame.track[t];
      samples.add(from, frame.samples);
    }
    warnings = tracks.warnings();
    about = to_line(about_recording(path, tracks));
  }
  return std::make_tuple(samples.matrix(), about, warnings);
}

// The library's turn, given up between frames.
class Turns {
 public:
  Turns() { turn().lock(); }
  ~Turns() { turn().unlock(); }
  // False when Ctrl-C came.
  bool next() {
    turn().unlock();
    const bool go_on = ++frames_ % 64 != 0 || [] {
      const nb::gil_scoped_acquire held;
      return PyErr_CheckSignals() == 0;
    }();
    turn().lock();
    return go_on;
  }

 private:
  size_t frames_ = 0;
};

auto check(const std::string& path, const std::string& channels, const std::string& encoding,
           const std::string& raw) {
  std::string told;
  bool stopped = false;
  {
    const nb::gil_scoped_release released;
    Turns turns;
    FileTracks tracks(path, input_options(channels, encoding, raw));
    const CheckResult result = check_recording(tracks, [&] { return !(stopped = !turns.next()); });
    told = to_line(checked_recording(path, tracks, result));
  }
  if (stopped) throw nb::python_error();
  return told;
}

auto run(const std::string& path, const std::string& channels, const std::string& encoding,
         const std::string& raw, const std::string& folder, bool report, bool raw_timing, bool keep,
         double threshold) {
  Samples outputs(kOutputs);
  std::vector<std::string> events;
  SessionOptions options;
  options.input = input_options(channels, encoding, raw);
  options.folder = folder;
  options.report = report;
  options.run.raw_timing = raw_timing;
  options.run.front_end = {threshold, false};
  SessionCallbacks callbacks;
  callbacks.event = [&](const Json& event) { events.push_back(to_line(event)); };
  if (keep) {
    callbacks.outputs = [&](const int16_t* const samples[kOutputs], int count) {
      outputs.add(samples, count);
    };
  }
  const OnlyOne only;
  bool stopped = false;
  {
    const nb::gil_scoped_release released;
    Turns turns;
    callbacks.go_on = [&](int64_t, int64_t) { return !(stopped = !turns.next()); };
    run_session(path, options, callbacks);
  }
  if (stopped) throw nb::python_error();
  return std::make_tuple(outputs.matrix(), events);
}

}  // namespace

void bind_recordings(nb::module_& m) {
  nb::register_exception_translator([](const std::exception_ptr& p, void*) {
    try {
      std::rethrow_exception(p);
    } catch (const FileProblem& problem) {
      PyErr_SetString(PyExc_OSError, problem.what());
    } catch (const WrongUse& problem) {
      PyErr_SetString(PyExc_ValueError, problem.what());
    }
  });
  m.def("about", [] { return to_line(about_quibo()); });
  m.def("read", &read, nb::arg("path"), nb::arg("channels"), nb::arg("encoding"), nb::arg("raw"));
  m.def("check", &check, nb::arg("path"), nb::arg("channels"), nb::arg("encoding"), nb::arg("raw"));
  m.def("run", &run, nb::arg("path"), nb::arg("channels"), nb::arg("encoding"), nb::arg("raw"),
        nb::arg("folder"), nb::arg("report"), nb::arg("raw_timing"), nb::arg("keep"),
        nb::arg("threshold"));
}

}  // namespace quibo::python

#else

#include <stdexcept>

namespace quibo::python {

void bind_recordings(nb::module_&) {}

}  // namespace quibo::python

#endif
