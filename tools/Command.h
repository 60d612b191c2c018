#pragma once

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <memory>

namespace kadrel_cue {

/// One command of the program: its words, the rules between them, and its work.
class Command {
public:
  Command() = default;
  virtual ~Command() = default;
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;
  Command(Command&&) = delete;
  Command& operator=(Command&&) = delete;

  /// Adds the command with its options to the program. The options point into this object.
  /// @return the command as the program knows it
  virtual CLI::App* add_to(CLI::App& app) = 0;

  /// Called after all words have been read. @throws CLI::ValidationError when they do not go together
  virtual void check() const {}

  /// Does what the words say. @return exit code
  /// @throws std::exception when a file or the network is not as it should be
  virtual int run(std::ostream& out, std::ostream& err) = 0;
};

std::unique_ptr<Command> make_info();
std::unique_ptr<Command> make_verify();
std::unique_ptr<Command> make_play();
std::unique_ptr<Command> make_cut();
std::unique_ptr<Command> make_join();
std::unique_ptr<Command> make_export();
std::unique_ptr<Command> make_import();
std::unique_ptr<Command> make_plot();
std::unique_ptr<Command> make_record();
std::unique_ptr<Command> make_ready();
std::unique_ptr<Command> make_top();

}  // namespace kadrel_cue
