#include "events.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "dsp/kernels.h"
#include "version.h"

namespace quibo::recordings {

namespace {

Json event(const char* type, const std::string& name) {
  return {{"v", kEventsVersion}, {"type", type}, {"recording", name}};
}

}  // namespace

Json rounded(double value, int decimals) {
  if (!std::isfinite(value)) return nullptr;
  const double scale = std::pow(10.0, decimals);
  return std::round(value * scale) / scale;
}

Json about_quibo() {
  Json parameters = Json::object();
  for (const ParameterFile& file : kParameterFiles) parameters[file.name] = file.digest;
  return {{"version", kVersion}, {"kernels", kernels().name}, {"parameters", parameters}};
}

Json about_recording(const std::string& name, const FileTracks& tracks) {
  Json map;
  for (int t = 0; t < kTracks; ++t) map[kTrackNames[t]] = tracks.map().channel[t] + 1;
  return {{"file", name},
          {"format", tracks.recording().format()},
          {"channels", tracks.recording().channels()},
          {"sample_rate", tracks.rate()},
          {"map", map},
          {"encoding", tracks.scrambled() ? "scrambled" : "plain"}};
}

Json start_event(const std::string& name, const FileTracks& tracks) {
  Json e = event("start", name);
  e.update(about_recording(name, tracks));
  e.erase("file");
  e["quibo"] = about_quibo();
  return e;
}

Json wake_event(const std::string& name, int number, const Wake& wake) {
  Json e = event("wake", name);
  e["number"] = number;
  e["frame"] = wake.frame;
  e["sample"] = wake.sample;
  e["seconds"] = rounded(static_cast<double>(wake.sample) / QUIBO_SAMPLE_RATE, 3);
  e["start"] = rounded(wake.start, 2);
  e["end"] = rounded(wake.end, 2);
  e["cost"] = rounded(static_cast<double>(wake.cost), 4);
  e["threshold"] = rounded(static_cast<double>(wake.threshold), 2);
  e["angle"] = wake.angle >= 0 ? Json(wake.angle) : Json(nullptr);
  e["angle_length"] =
      wake.angle >= 0 ? rounded(static_cast<double>(wake.angle_length), 3) : Json(nullptr);
  return e;
}

Json levels_event(const std::string& name, int second, const float levels[kTracks + kOutputs]) {
  Json e = event("levels", name);
  e["second"] = second;
  for (int t = 0; t < kTracks; ++t) {
    e["in"][kTrackNames[t]] = rounded(static_cast<double>(levels[t]), 1);
  }
  for (int o = 0; o < kOutputs; ++o) {
    e["out"][kOutputNames[o]] = rounded(static_cast<double>(levels[kTracks + o]), 1);
  }
  return e;
}

Json warning_event(const std::string& name, const std::string& text) {
  Json e = event("warning", name);
  e["text"] = text;
  return e;
}

Json end_event(const std::string& name, const RunResult& result) {
  const double seconds = static_cast<double>(result.samples) / QUIBO_SAMPLE_RATE;
  const auto& only_device = result.echo.only_device;
  Json e = event("end", name);
  e["samples"] = result.samples;
  e["seconds"] = rounded(seconds, 3);
  e["wakes"] = result.wakes.size();
  e["echo_reduction_db"] = rounded(static_cast<double>(result.echo.median), 1);
  e["only_device_seconds"] = std::count(only_device.begin(), only_device.end(), true);
  e["processor_seconds"] = rounded(result.processor_seconds, 3);
  e["core_share"] = rounded(result.processor_seconds / seconds, 5);
  e["stopped"] = result.stopped;
  return e;
}

std::string to_line(const Json& event) {
  return event.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace quibo::recordings
