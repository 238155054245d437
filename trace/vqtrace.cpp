// vqtrace, the command: where traces come from, what is in them, and what else is done with whole
// traces. Its sub-commands each have a file of their own; here are their arguments.
#include <CLI/CLI.hpp>
#include <charconv>
#include <functional>
#include <iostream>
#include <string>

#include "coder/errors.h"
#include "coder/version.h"
#include "fileio/program.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/formats/formats.h"

namespace vqtrace {

namespace {

// A number of hexadecimal digits, all of the text. Throws what CLI reports to the user.
std::uint64_t hexadecimal(const std::string& option, std::string_view text) {
  std::uint64_t value = 0;
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  const char* const end = text.data() + text.size();
  const std::from_chars_result read = std::from_chars(text.data(), end, value, 16);
  if (read.ec != std::errc() || read.ptr != end || text.empty())
    throw CLI::ValidationError(option, std::string(text) + ": not a hexadecimal number");
  return value;
}

std::vector<std::string> parts(const std::string& list) { return CLI::detail::split(list, ','); }

void set_agents(const std::string& list, std::set<int>& agents) {
  for (const std::string& text : parts(list)) {
    const std::uint64_t agent = hexadecimal("--agent", text);
    if (agent > 0xFFFF) throw CLI::ValidationError("--agent", text + ": no agent");
    agents.insert(int(agent));
  }
}

void set_addresses(const std::string& text, filter_settings& settings) {
  const std::size_t dash = text.find('-');
  if (dash == std::string::npos) throw CLI::ValidationError("--address", text + ": not LO-HI");
  if (dash > 0) settings.low = hexadecimal("--address", text.substr(0, dash));
  if (dash + 1 < text.size()) settings.high = hexadecimal("--address", text.substr(dash + 1));
  if (settings.low > settings.high) throw CLI::ValidationError("--address", text + ": empty");
}

// The settings of all sub-commands, and what the command line chooses.
class command_line {
 public:
  command_line() {
    app_.set_version_flag("--version", std::string("vqtrace ") + vqpack::detail::version_text);
    app_.require_subcommand(1);
    add_info();
    add_test();
    add_split();
    add_cat();
    add_filter();
    add_import();
    add_export();
  }

  // Returns the exit status.
  int run(int argc, char** argv) {
    const int status = run_chosen(argc, argv);
    if (!std::cout.flush()) throw command_error(vqpack::detail::cannot_write);
    return status;
  }

 private:
  int run_chosen(int argc, char** argv) {
    try {
      app_.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app_.exit(error) == 0 ? success : failure;
    }
    return chosen_();
  }

  CLI::App* add(const char* name, const char* what, const std::function<int()>& work, bool& quiet) {
    CLI::App* const command = app_.add_subcommand(name, what);
    command->callback([this, work] { chosen_ = work; });
    command->add_flag("-q,--quiet", quiet, "Show neither progress nor statistics");
    return command;
  }

  static void add_form(CLI::App* command, std::optional<int>& version) {
    command
        ->add_option_function<std::string>(
            "-v",
            [&version](const std::string& text) {
              version = text == "text" ? -1 : std::stoi(text);
            },
            "QUBIX type of the output, or text; that of the input otherwise")
        ->check(CLI::IsMember({"0", "1", "2", "3", "4", "5", "text"}))
        ->type_name("TYPE");
  }

  static CLI::Validator power_of_two(unsigned lowest, unsigned highest) {
    return CLI::Validator(
        [lowest, highest](const std::string& text) {
          unsigned value = 0;
          const bool fits = CLI::detail::lexical_cast(text, value) && value >= lowest &&
                            value <= highest && (value & (value - 1)) == 0;
          return fits ? ""
                      : text + ": not a power of two from " + std::to_string(lowest) + " to " +
                            std::to_string(highest);
        },
        "BYTES");
  }

  void add_info() {
    CLI::App* const command = add(
        "info", "Print what is in traces", [this] { return run_info(info_); }, info_.quiet);
    command->add_option("FILE", info_.files, "Traces")->required();
    command->add_option("--line", info_.line, "Size of the lines that are counted, 64 otherwise")
        ->check(power_of_two(8, 1 << 20));
    command->add_flag("--json", info_.json, "Print one JSON object a file, each on a line");
  }

  void add_test() {
    CLI::App* const command = add(
        "test", "Read traces and say whether they are whole", [this] { return run_test(test_); },
        test_.quiet);
    command->add_option("FILE", test_.files, "Traces")->required();
  }

  void add_split() {
    CLI::App* const command = add(
        "split", "Cut a trace into parts", [this] { return run_split(split_); }, split_.quiet);
    command->add_option("-n,--size", split_.size, "Transactions a part")
        ->required()
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 62));
    command->add_option("IN", split_.in, "The trace")->required();
    command->add_option("PATTERN", split_.pattern, "Names of the parts, as part.%04d.qu")
        ->required();
    add_form(command, split_.version);
  }

  void add_cat() {
    CLI::App* const command = add(
        "cat", "Join traces into one", [this] { return run_cat(cat_); }, cat_.quiet);
    command->add_option("FILE", cat_.files, "Traces, then the output")
        ->required()
        ->expected(2, -1)
        ->type_name("IN... OUT");
    add_form(command, cat_.version);
  }

  void add_filter() {
    CLI::App* const command = add(
        "filter", "Keep some of the transactions of a trace",
        [this] { return run_filter(filter_); }, filter_.quiet);
    command
        ->add_option_function<std::string>(
            "--agent", [this](const std::string& list) { set_agents(list, filter_.agents); },
            "Those of these agents, in hexadecimal")
        ->type_name("LIST");
    command
        ->add_option_function<std::string>(
            "--type",
            [this](const std::string& list) {
              for (const std::string& type : parts(list)) filter_.types.insert(type);
            },
            "Those of these types; read and write are several")
        ->type_name("LIST");
    command
        ->add_option_function<std::string>(
            "--address", [this](const std::string& text) { set_addresses(text, filter_); },
            "Those from byte address LO to HI, both included, in hexadecimal")
        ->type_name("LO-HI");
    command->add_option("--from", filter_.begin, "Skip the first A of the input")
        ->check(CLI::NonNegativeNumber)
        ->type_name("A");
    command->add_option("--to", filter_.end, "Stop after the first B of the input")
        ->check(CLI::NonNegativeNumber)
        ->type_name("B");
    command
        ->add_option("--every", filter_.every,
                     "Of those that are left, each K-th from the first on")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 62))
        ->type_name("K");
    command->add_option("IN", filter_.in, "The trace")->required();
    command->add_option("OUT", filter_.out, "The output")->required();
    add_form(command, filter_.version);
  }

  static std::vector<std::string> names(bool written) {
    std::vector<std::string> found;
    for (const foreign_format& format : foreign_formats())
      if (!written || format.writer) found.emplace_back(format.name);
    return found;
  }

  void add_import() {
    CLI::App* const command = add(
        "import", "Convert a trace of another tool", [this] { return run_import(import_); },
        import_.quiet);
    command->add_option("FORMAT", import_.format, "What is read")
        ->required()
        ->check(CLI::IsMember(names(false)));
    command->add_option("FILE", import_.files, "Inputs, an agent each, then the output")
        ->required()
        ->expected(2, -1)
        ->type_name("IN... OUT");
    command
        ->add_option("--cache", import_.cache,
                     "Caches before the bus, SIZE:WAYS from the first level on, or none; "
                     "32K:8,1M:16 otherwise")
        ->type_name("LEVELS");
    command->add_option("--line", import_.line, "Size of a line, 64 otherwise")
        ->check(power_of_two(8, 4096));
    command->add_option("--period", import_.period, "Units of the input's time in one of the count")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 32))
        ->type_name("N");
    command->add_flag("--skip-bad", import_.skip_bad, "Leave out and count lines that fit no rule");
    command->add_option("-v", import_.version, "QUBIX type of the output, 5 otherwise")
        ->check(CLI::Range(0, 5))
        ->type_name("TYPE");
  }

  void add_export() {
    CLI::App* const command = add(
        "export", "Convert a trace for another tool", [this] { return run_export(export_); },
        export_.quiet);
    command->add_option("FORMAT", export_.format, "What is written")
        ->required()
        ->check(CLI::IsMember(names(true)));
    command->add_option("IN", export_.in, "The trace")->required();
    command->add_option("OUT", export_.out, "The output")->required();
    command
        ->add_option("--period", export_.period, "Units of the output's time in one of the count")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 32))
        ->type_name("N");
  }

  CLI::App app_{"Memory-bus traces: information, tests, parts, and the formats of other tools",
                "vqtrace"};
  info_settings info_;
  test_settings test_;
  split_settings split_;
  cat_settings cat_;
  filter_settings filter_;
  import_settings import_;
  export_settings export_;
  std::function<int()> chosen_;
};

}  // namespace

}  // namespace vqtrace

int main(int argc, char** argv) {
  return run_program([&] {
    try {
      return vqtrace::command_line().run(argc, argv);
    } catch (const vqtrace::command_error& failed) {
      std::cerr << failed.what() << '\n';
      return failure;
    }
  });
}
