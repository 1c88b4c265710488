// quibo: the front end for a person's own recordings.

#include <signal.h>
#include <stdio.h>

#include <algorithm>
#include <vector>

#include "command.h"
#include "events.h"
#include "problem.h"

namespace {

using namespace quibo;
using namespace quibo::command;

std::string version() {
  const recordings::Json about = recordings::about_quibo();
  std::string text = "quibo " + about["version"].get<std::string>() + "\nkernels    " +
                     about["kernels"].get<std::string>() + "\n";
  for (const auto& [name, digest] : about["parameters"].items()) {
    text.append("parameters ")
        .append(name)
        .append(std::max<size_t>(name.size() + 1, 9) - name.size(), ' ');
    text.append(digest.get<std::string>()).append("\n");
  }
  text.pop_back();
  return text;
}

}  // namespace

namespace quibo::command {

void ReadingOptions::add_to(CLI::App& app) {
  app.add_option(
         "--channels", channels,
         "Which channel is which: names in the file's order (mic1,mic2,mic3,-,ref,-) or the "
         "numbers, from 1, of mic1, mic2, mic3 and ref (1,2,3,5). Without it 4 channels are "
         "taken as mic1,mic2,mic3,ref and 6 as mic1,mic2,mic3,-,ref,-.")
      ->type_name("MAP");
  app.add_option("--encoding", encoding,
                 "How the microphones are stored: plain, scrambled (as the library's frame call "
                 "takes them), or guess, from their first half minute.")
      ->check(CLI::IsMember({"guess", "plain", "scrambled"}))
      ->type_name("CODE")
      ->capture_default_str();
  app.add_option(
         "--raw", raw,
         "The recording is headerless, interleaved, little-endian: CHANNELS[,RATE[,SAMPLE]], "
         "such as 4,48000,s16. SAMPLE is u8, s8, s16, s24, s32 or f32.")
      ->type_name("FORMAT");
}

recordings::InputOptions ReadingOptions::parse() const {
  recordings::InputOptions options;
  if (!raw.empty()) options.raw = recordings::parse_raw_format(raw);
  options.channels = channels;
  if (encoding == "plain") options.encoding = recordings::Encoding::kPlain;
  if (encoding == "scrambled") options.encoding = recordings::Encoding::kScrambled;
  return options;
}

}  // namespace quibo::command

// NOLINTNEXTLINE(bugprone-exception-escape): without memory for its options the command may end so
int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // a reader that goes away is an error of the write
  CLI::App app{
      "Quibo, a speech front end for three microphones and a loudspeaker, for your own "
      "recordings."};
  app.name("quibo");
  app.set_version_flag("--version", version());
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 all fine, 1 something to look at, 2 wrong use, 3 a file could not be read or "
      "written,\n"
      "130 ended by Ctrl-C. `quibo COMMAND --help` shows a command's options and an example.");
  const std::vector<std::pair<CLI::App*, Action>> actions = [&] {
    std::vector<std::pair<CLI::App*, Action>> list;
    for (const auto add : {add_run, add_check, add_live}) {
      Action action = add(app);
      list.emplace_back(app.get_subcommands({}).back(), action);
    }
    return list;
  }();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kAllFine : kWrongUse;
  }
  try {
    for (const auto& [command, action] : actions) {
      if (*command) return action();
    }
  } catch (const recordings::WrongUse& problem) {
    fprintf(stderr, "quibo: %s\n", problem.what());
    return kWrongUse;
  } catch (const recordings::FileProblem& problem) {
    fprintf(stderr, "quibo: %s\n", problem.what());
    return kFileProblem;
  }
  return kWrongUse;
}
