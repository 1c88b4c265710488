#include "session.h"

#include <algorithm>
#include <filesystem>
#include <memory>

#include "check_json.h"
#include "outputs.h"
#include "report.h"

namespace quibo::recordings {

namespace {

constexpr float kDead = -100.0f;  // dBFS: no microphone is as quiet as that

bool dead(const std::vector<float>& levels) {
  return std::all_of(levels.begin(), levels.end(), [](float level) { return level < kDead; });
}

std::vector<std::string> to_look_at(const FileTracks& tracks, const FrameReader& frames,
                                    const RunResult& run) {
  std::vector<std::string> lines = tracks.warnings();
  if (run.samples < QUIBO_FRAME) {
    lines.push_back(std::to_string(run.samples) + " samples are less than one frame of " +
                    std::to_string(QUIBO_FRAME) + ": nothing can be found in them");
  }
  if (frames.clipped() > 0) {
    lines.push_back(std::to_string(frames.clipped()) + " samples are beyond full scale: clipped");
  }
  for (int t = 0; t < kMics; ++t) {
    if (dead(run.track_level[t]))
      lines.push_back(std::string(kTrackNames[t]) + " is dead: it holds silence");
  }
  return lines;
}

// What a report needs and a run does not: a check of the recording, and the signals.
struct ReportBuilder {
  explicit ReportBuilder(int rate) : check(rate) {}

  Check check;
  ReportSignal before, after;
  std::vector<Json> wakes;
};

}  // namespace

SessionResult run_session(const std::string& path, const SessionOptions& options,
                          const SessionCallbacks& callbacks) {
  FileTracks tracks(path, options.input);
  FrameReader frames(tracks);
  std::vector<std::string> notes = tracks.notes();
  if (frames.resamples()) {
    notes.push_back(std::to_string(tracks.rate()) + " Hz: resampled to " +
                    std::to_string(QUIBO_SAMPLE_RATE) + " Hz");
  }
  for (const std::string& note : notes) {
    if (callbacks.note) callbacks.note(note);
  }

  std::vector<std::unique_ptr<WavFile>> outputs;
  std::unique_ptr<OutputFile> events;
  if (!options.folder.empty()) {
    make_folder(options.folder);
    for (const char* name : kOutputNames) {
      outputs.push_back(std::make_unique<WavFile>(options.folder + "/" + name + ".wav"));
    }
  }
  if (options.events != "-" && !(options.events.empty() && options.folder.empty())) {
    events = std::make_unique<OutputFile>(options.events.empty() ? options.folder + "/events.jsonl"
                                                                 : options.events);
  }
  const auto tell = [&](const Json& event) {
    const std::string line = to_line(event);
    if (events) events->write(line.data(), line.size());
    if (callbacks.event) callbacks.event(event);
  };

  std::unique_ptr<OutputFile> page;
  std::unique_ptr<ReportBuilder> report;
  if (options.report && !options.folder.empty()) {
    page = std::make_unique<OutputFile>(options.folder + "/report.html");
    report = std::make_unique<ReportBuilder>(tracks.rate());
    feed(&report->check, &frames);
  }

  SessionResult result;
  int wakes = 0;
  RunCallbacks during;
  during.outputs = [&](const int16_t* const samples[kOutputs], int count) {
    for (size_t o = 0; o < outputs.size(); ++o) outputs[o]->write(samples[o], count);
    if (report) report->after.add(samples[kClean], count);
    if (callbacks.outputs) callbacks.outputs(samples, count);
  };
  if (report) {
    during.frame = [&](const Frame& frame, const Output&) {
      if (frame.samples == QUIBO_FRAME) report->check.add_frame(frame.track);
      report->before.add(frame.track[0], frame.samples);
    };
  }
  during.wake = [&](const Wake& wake) {
    const Json event = wake_event(path, ++wakes, wake);
    tell(event);
    if (report) report->wakes.push_back(event);
    if (callbacks.wake) callbacks.wake(wakes, wake);
  };
  during.second = [&](int second, const float levels[kTracks + kOutputs]) {
    tell(levels_event(path, second, levels));
  };
  during.go_on = [&](int64_t done) {
    return !callbacks.go_on || callbacks.go_on(done, frames.samples());
  };
  tell(start_event(path, tracks));
  result.run = run(frames, options.run, during);
  result.warnings = to_look_at(tracks, frames, result.run);
  for (const std::string& line : result.warnings) tell(warning_event(path, line));
  tell(end_event(path, result.run));

  if (report) {
    report->before.finish();
    report->after.finish();
    Json recording = about_recording(path, tracks);
    recording["notes"] = notes;
    const Json data =
        report_data(std::filesystem::path(path).filename().string(), recording, result.run,
                    options.run.raw_timing, report->wakes, report->check.finish(), result.warnings,
                    report->before, report->after);
    const std::string text = report_page(data);
    page->write(text.data(), text.size());
    page->finish();
  }

  // All are whole before the first one gets its name.
  for (const auto& output : outputs) output->finish();
  if (events) events->finish();
  for (const auto& output : outputs) output->keep();
  if (events) events->keep();
  if (page) page->keep();
  return result;
}

}  // namespace quibo::recordings
