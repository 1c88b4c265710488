// quibo check: is a recording fit for an echo canceller?

#include <stdio.h>

#include <cmath>
#include <memory>

#include "check_json.h"
#include "command.h"
#include "problem.h"

namespace quibo::command {

namespace {

using recordings::CheckResult;
using recordings::Finding;
using recordings::Json;
using recordings::Severity;

struct CheckRequest {
  std::vector<std::string> recordings;
  ReadingOptions reading;
  bool json = false;
};

std::string where(const Finding& finding) {
  if (std::isnan(finding.start)) return "";
  char text[64];
  snprintf(text, sizeof text, " (%.2f - %.2f s)", finding.start, finding.end);
  return text;
}

void print(const std::string& name, const recordings::FileTracks& tracks,
           const CheckResult& result) {
  printf("%s: %s, %d Hz, %.2f s, %s%s\n", name.c_str(), tracks.recording().format().c_str(),
         tracks.rate(), result.seconds, describe(tracks.map()).c_str(),
         tracks.scrambled() ? ", scrambled" : "");
  for (int t = 0; t < recordings::kTracks; ++t) {
    const recordings::ChannelState& state = result.channels[t];
    char floor[48] = "";
    if (!std::isnan(state.floor)) snprintf(floor, sizeof floor, ", floor %4.0f dBFS", state.floor);
    printf("  %-4s  level %6.1f dBFS, peak %6.1f dBFS%s\n", recordings::kTrackNames[t], state.level,
           state.peak, floor);
  }
  for (const Finding& finding : result.findings) {
    printf("%s: %s%s: %s.%s%s%s\n", name_of(finding.severity), finding.what.c_str(),
           where(finding).c_str(), finding.how_bad.c_str(), finding.advice.empty() ? "" : " ",
           finding.advice.c_str(), finding.advice.empty() ? "" : ".");
  }
  constexpr const char* kVerdicts[] = {"fit for an echo canceller", "something to look at",
                                       "not fit for an echo canceller"};
  printf("%s\n", kVerdicts[static_cast<int>(result.worst())]);
}

int check(const CheckRequest& request) {
  int worst = kAllFine;
  Json all = Json::array();
  for (const std::string& path : request.recordings) {
    try {
      recordings::FileTracks tracks(path, request.reading.parse());
      if (!request.json) {
        for (const std::string& note : tracks.notes())
          fprintf(stderr, "%s: %s\n", path.c_str(), note.c_str());
      }
      const CheckResult result = check_recording(tracks);
      const std::vector<std::string> warnings = tracks.warnings();
      if (request.json) {
        all.push_back(checked_recording(path, tracks, result));
      } else {
        print(path, tracks, result);
        for (const std::string& line : warnings) printf("warning: %s\n", line.c_str());
      }
      if (result.worst() > Severity::kNote || !warnings.empty())
        worst = std::max<int>(worst, kSomethingToLookAt);
    } catch (const recordings::WrongUse& problem) {
      fprintf(stderr, "%s: %s\n", path.c_str(), problem.what());
      worst = std::max<int>(worst, kWrongUse);
    } catch (const recordings::FileProblem& problem) {
      fprintf(stderr, "%s: %s\n", path.c_str(), problem.what());
      worst = std::max<int>(worst, kFileProblem);
    }
  }
  if (request.json) {
    const Json& shown = request.recordings.size() == 1 && all.size() == 1 ? all[0] : all;
    printf("%s\n", shown.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
  }
  if (fflush(stdout) != 0 || ferror(stdout))
    throw recordings::FileProblem("cannot write to standard output");
  return worst;
}

}  // namespace

Action add_check(CLI::App& app) {
  CLI::App* command = app.add_subcommand("check",
                                         "Is a recording fit for an echo canceller? Delay, drift "
                                         "and polarity of the reference, levels, "
                                         "clipping, dropouts, dead, doubled and swapped channels: "
                                         "a line for each finding, with what to do.");
  auto request = std::make_shared<CheckRequest>();
  command->add_option("RECORDING", request->recordings, "As for `quibo run`.")->required();
  request->reading.add_to(*command);
  command->add_flag("--json", request->json, "Everything found as JSON.");
  command->footer("Example:\n  quibo check kitchen.wav");
  return [request] { return check(*request); };
}

}  // namespace quibo::command
