#include "repair_command.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "console.h"
#include "diagnostics.h"
#include "failure.h"
#include "output_paths.h"

namespace meru_tool {

namespace {

constexpr char kDescription[] =
    "Rebuilds a movie that was cut short from the side index that was recorded beside it. The broken movie and the "
    "index are only read.";

void check(const RepairOptions& options) {
  const std::string output = plain_path(options.files.output);
  for (const std::string& source : {options.files.broken, options.files.index}) {
    check_readable_name(source);
    if (same_file(output, plain_path(source))) {
      throw UsageError(options.files.output + " is what is to be repaired: give the new movie another name");
    }
  }
  if (is_network(output)) return;
  std::error_code error;
  if (!options.force && std::filesystem::exists(output, error)) {
    throw UsageError(options.files.output + " exists already: give another name, or --force to replace it");
  }
  check_writable("the new movie", output);
}

void print_json(const RepairResult& result, const std::string& output) {
  const nlohmann::ordered_json json = {{"output", output},
                                       {"exit_code", result.exit_code},
                                       {"code", result.code},
                                       {"message", result.text},
                                       {"stopped", result.stopped},
                                       {"progress", result.progress},
                                       {"packets", result.packets},
                                       {"bytes_read", result.bytes},
                                       {"duration", result.duration},
                                       {"ignored_lines", result.ignored_lines},
                                       {"damaged_lines", result.damaged_lines}};
  // A path need not be UTF-8.
  Console::instance().line(json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

void print_result(const RepairResult& result, const std::string& output) {
  Console::instance().line(result.summary() + "  " + output);
  if (const std::string lacks = result.left_out(); !lacks.empty()) Console::instance().line(lacks);
}

}  // namespace

CLI::App* add_repair_command(CLI::App* app, RepairOptions* options) {
  CLI::App* cmd = app->add_subcommand("repair", kDescription);
  cmd->add_option("broken", options->files.broken, "The movie that was cut short")->required()->type_name("BROKEN");
  cmd->add_option("index", options->files.index, "Its side index")->required()->type_name("INDEX");
  cmd->add_option("output", options->files.output, "The movie to make; its extension chooses the container")
      ->required()
      ->type_name("OUT");
  cmd->add_flag("--json", options->json, "Print the result as JSON, and no progress");
  cmd->add_flag("--force", options->force, "Replace OUT when it exists");
  cmd->add_option("--log", options->log, "Append the diagnostics of the library to this file")->type_name("FILE");
  cmd->add_flag("--verbose", options->verbose, "Show the diagnostics, or write more of them to the log");
  return cmd;
}

int repair(const RepairOptions& options) {
  check(options);
  const Diagnostics diagnostics(options.log, options.verbose);
  // The library prints its progress on standard output, where the result belongs alone.
  if (options.verbose && options.log.empty()) dup2(STDERR_FILENO, STDOUT_FILENO);
  const RepairResult result = run_repair(options.files, {!options.json, options.verbose});
  if (options.json) {
    print_json(result, options.files.output);
  } else if (result.exit_code == EXIT_SUCCESS) {
    print_result(result, options.files.output);
  }
  if (!result.failure.empty()) Console::instance().error(result.failure);
  return result.exit_code;
}

}  // namespace meru_tool
