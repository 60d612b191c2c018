#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "cue/AtomicFile.h"
#include "cue/Edit.h"
#include "cue/Input.h"
#include "cue/Selection.h"

/// Options that several commands have.
namespace kadrel_cue {

/// Adds an option whose words are parsed by @p parse and handed to @p take.
/// @param what  expected kind of word, for the error message
template <typename Value, typename Parse, typename Take>
CLI::Option* add_parsed(CLI::App& command, const std::string& name, Parse parse, Take take, const char* what,
                        const std::string& help) {
  return command.add_option(
      name,
      [parse, take, what](const CLI::results_t& words) {
        for (const std::string& word : words) {
          const std::optional<Value> value = parse(word);
          if (!value) throw CLI::ValidationError("\"" + word + "\" is not " + what);
          take(*value);
        }
        return true;
      },
      help);
}

/// Adds a command with examples below its help.
CLI::App* add_command(CLI::App& app, const std::string& name, const std::string& description,
                      const std::string& examples);

/// --start and --stop.
void add_time_range(CLI::App& command, cue::Selection& selection);

/// @throws CLI::ValidationError when --stop is before --start
void check_time_range(const cue::Selection& selection);

CLI::Option* add_only(CLI::App& command, cue::Selection& selection);

/// --universe, counted from 1.
CLI::Option* add_universe(CLI::App& command, std::optional<std::uint16_t>& port_address,
                          const std::string& help);

/// --gap. @param between  the things that it separates
void add_gap(CLI::App& command, std::int64_t& gap, const std::string& between);
void add_gap(CLI::App& command, std::optional<std::int64_t>& gap, const std::string& between);

/// -o and --force.
CLI::Option* add_output(CLI::App& command, cue::Output& output);

/// --force alone, for outputs with options of their own. @param replace  for Output::replace
CLI::Option* add_force(CLI::App& command, bool& replace);

/// --strict. @param strict  for DamageWarning
CLI::Option* add_strict(CLI::App& command, bool& strict);

/// --no-look and --renumber.
void add_edit(CLI::App& command, cue::EditOptions& options);

/// Where a command says what it has written: on the error output when the standard output has the bytes.
std::ostream& summary_of(const cue::Output& written, std::ostream& out, std::ostream& err);

/// FILE, or - for the standard input. @param what  words for the help
CLI::Option* add_input(CLI::App& command, const std::string& name, cue::Input& input,
                       const std::string& what);

/// FILE..., - at most once.
CLI::Option* add_inputs(CLI::App& command, std::vector<cue::Input>& inputs, const std::string& what);

}  // namespace kadrel_cue
