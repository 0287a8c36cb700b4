// ip-sla-ctl: the daemon's results, its reloads and a check of its files, from the command line.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <limits>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "client/usage_fault.h"
#include "ctl/commands.h"
#include "ctl/config_input.h"
#include "ctl/display_text.h"
#include "ctl/json_out.h"
#include "ctl/task_order.h"

namespace ipsla::ctl {
namespace {

constexpr const char* kAbout =
    "Shows what the IP SLA sender of this machine measures, makes it read its files again, and "
    "checks those files.\n"
    "SD is the direction from source to destination, DS the way back. Times are in milliseconds.";
constexpr const char* kFooter =
    "Exit status: 0 fine; 1 a test is failing, a file has faults, a reload was refused or lost a "
    "task; 2 no\n"
    "daemon answered; 3 a wrong command line or an unknown task. `probe` exits as monitoring\n"
    "plugins do: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.";
constexpr const char* kProbeHelp =
    "A threshold is NAME=NUMBER, several are joined by commas, as in --warning rtt=50,loss=1. A "
    "value above it "
    "counts.\n"
    "  rtt      average round-trip time, ms\n"
    "  latency  average one-way latency, ms, the worse direction\n"
    "  jitter   standard deviation of the one-way latency, ms, the worse direction\n"
    "  loss     lost probes, percent, the worse direction (echo tests: probes without a reply)\n"
    "  age      time since the last run ended, seconds\n"
    "A failed run is CRITICAL. No daemon, no such task, no result yet or no value for a threshold "
    "is UNKNOWN.";

struct Arguments {
  CommonOptions common;
  double timeout_s = 0;
  ShowOptions show;
  WatchOptions watch;
  TaskChoice status;
  std::vector<std::int32_t> ids;
  CheckOptions check;
  ReloadOptions reload;
  TemplateOptions task_template;
  std::int32_t keychain_template_id = 1;
  ProbeOptions probe;
  std::function<int()> run;
};

Arguments* AddCommand(CLI::App* command, Arguments* arguments, std::function<int()> run) {
  command->fallthrough();
  command->callback([arguments, run = std::move(run)] { arguments->run = run; });
  return arguments;
}

CLI::Option* AddIds(CLI::App* command, Arguments* arguments) {
  return command->add_option("ID", arguments->ids, "Task ids")->check(CLI::Range(0, 65535));
}

void AddChoice(CLI::App* command, Arguments* arguments, TaskChoice* choice) {
  CLI::Option* ids = AddIds(command, arguments);
  command->add_option("--tasks", choice->tasks_file,
                      "Tasks file that names the tasks (default: the running daemon's)");
  command
      ->add_flag(
          "--scan", choice->selection.scan,
          "Finds tasks without the file: asks for all 65536 ids, which fills the daemon's log")
      ->excludes(ids);
}

/// Of `show` and `watch`; `status` has all tasks anyway.
void AddAll(CLI::App* command, TaskChoice* choice) {
  command
      ->add_flag("--all", choice->selection.all,
                 "Every configured task, also one that has not run yet")
      ->excludes(command->get_option("ID"));
}

void AddSort(CLI::App* command, std::string* sort) {
  command
      ->add_option("--sort", *sort,
                   "Order: failing (tasks first), id, age, rtt, loss (largest first)")
      ->type_name("KEY")
      ->check(CLI::IsMember(SortKeyNames()));
}

/// The choice as given: with --scan every task is meant.
TaskChoice Chosen(const Arguments& arguments, TaskChoice choice) {
  choice.selection.ids = {arguments.ids.begin(), arguments.ids.end()};
  choice.selection.all = choice.selection.all || choice.selection.scan;
  return choice;
}

/// "auto" or whole seconds.
std::string ValidateAge(const std::string& text) {
  const bool is_number = !text.empty() && text.size() <= 9 &&
                         text.find_first_not_of("0123456789") == std::string::npos;
  return is_number || text == "auto" ? "" : "\"" + text + "\" is neither whole seconds nor auto";
}

void AddShow(CLI::App* app, Arguments* a) {
  CLI::App* show = app->add_subcommand("show", "Last results as a table");
  AddChoice(show, a, &a->show.choice);
  AddAll(show, &a->show.choice);
  show->add_flag("--failing", a->show.failing_only, "Failing tasks only");
  show->add_option("--max-age", a->show.max_age,
                   "Results older than this are stale, and stale results count as failing; auto: "
                   "stale is older than twice the task's period")
      ->type_name("SECONDS")
      ->check(CLI::Validator(ValidateAge, "", "age"));
  CLI::Option* metrics = show->add_flag("--metrics", a->show.metrics, "Every value of each task");
  show->add_flag("--raw", a->show.raw, "The daemon's own JSON, untouched")
      ->excludes(metrics)
      ->excludes(show->get_option("--all"))
      ->excludes(show->get_option("--scan"))
      ->excludes(show->get_option("--failing"))
      ->excludes(show->get_option("--max-age"));
  AddSort(show, &a->show.sort);
  AddCommand(show, a, [a] {
    a->show.choice = Chosen(*a, a->show.choice);
    return RunShow(a->common, a->show);
  });
}

void AddWatch(CLI::App* app, Arguments* a) {
  CLI::App* watch =
      app->add_subcommand("watch", "The same table, kept up to date, what changed marked");
  watch->footer(
      "On a terminal arrows, page keys, Home and End move, q ends. Elsewhere: one line for each "
      "new "
      "result.\nOf many tasks each refresh asks for those that are shown; the others follow, as "
      "far "
      "as the daemon's log has room.");
  AddChoice(watch, a, &a->watch.choice);
  AddAll(watch, &a->watch.choice);
  AddSort(watch, &a->watch.sort);
  watch->add_option("-n,--interval", a->watch.interval, "Time between refreshes")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0))
      ->capture_default_str();
  watch->add_option("--count", a->watch.count, "Refreshes, then end (default: until Ctrl-C)");
  AddCommand(watch, a, [a] {
    a->watch.choice = Chosen(*a, a->watch.choice);
    return RunWatch(a->common, a->watch);
  });
}

void AddStatus(CLI::App* app, Arguments* a) {
  CLI::App* status = app->add_subcommand(
      "status",
      "The daemon itself, and which tasks are configured and scheduled and whether they fail");
  AddChoice(status, a, &a->status);
  AddCommand(status, a, [a] {
    TaskChoice choice = Chosen(*a, a->status);
    choice.selection.all = choice.selection.ids.empty();
    return RunStatus(a->common, choice);
  });
}

void AddReload(CLI::App* app, Arguments* a) {
  CLI::App* reload = app->add_subcommand("reload", "Makes the daemon read a file again");
  reload->require_subcommand(1);
  reload->fallthrough();
  const auto add_options = [a](CLI::App* command) {
    command->add_option("FILE", a->reload.file,
                        "The file that the daemon reads (default: from its command line)");
    command->add_flag("--force", a->reload.force,
                      "Even if the file has faults, unless it would end the daemon");
  };
  CLI::App* tasks =
      reload->add_subcommand("tasks", "The tasks file, checked first; prints what was applied");
  add_options(tasks);
  AddCommand(tasks, a, [a] { return RunReloadTasks(a->common, a->reload); });
  CLI::App* keychain = reload->add_subcommand(
      "keychain", "The keychain file, checked first: one that cannot be read ends the daemon");
  add_options(keychain);
  AddCommand(keychain, a, [a] { return RunReloadKeychain(a->common, a->reload); });
}

void AddCheck(CLI::App* app, Arguments* a) {
  CLI::App* check = app->add_subcommand(
      "check", "Every fault of the files, and what cannot work; needs no daemon");
  check->add_option("TASKS", a->check.tasks_file, "Tasks file; - for standard input")->required();
  check
      ->add_option("KEYCHAIN", a->check.keychain_file,
                   "Keychain file; without it key ids are not looked up")
      ->check(CLI::Validator(
          [a](const std::string& name) {
            const bool both = name == kStandardInput && a->check.tasks_file == kStandardInput;
            return both ? "only one of the files can be standard input" : "";
          },
          "", "one standard input"));
  check->add_flag("--no-host", a->check.no_host,
                  "Leaves out what only this machine can tell: VRFs, addresses, CPUs, permissions");
  CLI::Option* strict = check->add_flag("--strict", a->check.strict, "Warnings count as faults");
  check
      ->add_flag("--start", a->check.start,
                 "Only what would end the daemon at its start is a failure")
      ->excludes(strict);
  AddCommand(check, a, [a] { return RunCheck(a->common, a->check); });
}

/// `template TYPE`, a sub-command for each so that its options are its own.
void AddTaskTemplate(CLI::App* templates, Arguments* a, const char* type) {
  constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
  TemplateOptions* options = &a->task_template;
  CLI::App* command = templates->add_subcommand(type, "A tasks file with one such task");
  command->add_option("--dst", options->destination, "The responder: an address or a name")
      ->type_name("HOST")
      ->required();
  command->add_option("--src", options->source, "Source address (default: the route's)")
      ->type_name("ADDRESS");
  command->add_option("--port", options->port, "Control port of the responder")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  command->add_option("--vrf", options->vrf, "VRF to measure in")->type_name("NAME");
  command->add_option("--key-id", options->key_id, "Key of the keychain (default: no key)")
      ->check(CLI::Range(0, 255));
  command->add_option("--interval", options->interval_ms, "From one probe to the next")
      ->type_name("MS")
      ->check(CLI::Range(0, kMost));
  command->add_option("--packets", options->packets, "Probes of a run")
      ->check(CLI::Range(1, kMost));
  command->add_option("--period", options->period_s, "From one run to the next")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, kMost));
  AddCommand(command, a, [a, type] {
    a->task_template.type = type;
    return RunTaskTemplate(a->common, a->task_template);
  });
}

void AddTemplate(CLI::App* app, Arguments* a) {
  CLI::App* templates =
      app->add_subcommand("template", "A first tasks file or keychain file, to standard output");
  templates->require_subcommand(1);
  templates->fallthrough();
  for (const char* type :
       {"udp-echo", "udp-jitter", "udp-jitter-ntp", "icmp-echo", "icmp-jitter"}) {
    AddTaskTemplate(templates, a, type);
  }
  CLI::App* keychain = templates->add_subcommand("keychain", "A keychain file with a random key");
  keychain->add_option("--key-id", a->keychain_template_id, "Id of the key")
      ->check(CLI::Range(0, 255))
      ->capture_default_str();
  AddCommand(keychain, a, [a] { return RunKeychainTemplate(a->keychain_template_id); });
}

/// A wrong threshold is a usage error like any other.
void AddThresholds(CLI::App* probe, const std::string& short_name, const std::string& name,
                   Thresholds* thresholds) {
  const auto read = [name, thresholds](const std::string& text) {
    std::string error;
    const auto found = ReadThresholds(text, &error);
    if (!found) {
      throw CLI::ValidationError(name, error);
    }
    *thresholds = *found;
  };
  probe->add_option_function<std::string>(short_name + "," + name, read, "Thresholds");
}

void AddProbe(CLI::App* app, Arguments* a) {
  CLI::App* probe = app->add_subcommand(
      "probe", "One task for a monitoring system: a line, values, an exit status");
  probe->footer(kProbeHelp);
  probe->add_option("ID", a->probe.id, "Task id")->required()->check(CLI::Range(0, 65535));
  AddThresholds(probe, "-w", "--warning", &a->probe.warning);
  AddThresholds(probe, "-c", "--critical", &a->probe.critical);
  AddCommand(probe, a, [a] { return RunProbe(a->common, a->probe); });
}

void AddOptions(CLI::App* app, Arguments* a) {
  constexpr double kLongestTimeout = 86400;
  app->set_version_flag("-V,--version", "ip-sla-ctl " IPSLA_VERSION);
  app->add_flag("--json", a->common.json, "JSON on standard output, one document per line");
  app->add_option("--timeout", a->timeout_s,
                  "Longest silence of the daemon (default 5; reload: 60 and more)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, kLongestTimeout));
  app->add_option("--port", a->common.client.port, "UDP port of the daemon on 127.0.0.1")
      ->capture_default_str();
  app->footer(kFooter);
  app->require_subcommand(1);
}

int Run(Arguments* arguments) {
  if (arguments->timeout_s > 0) {
    const auto ms = static_cast<std::int64_t>(arguments->timeout_s * 1000);
    arguments->common.client.timeout = std::chrono::milliseconds(std::max<std::int64_t>(ms, 1));
    arguments->common.timeout_given = true;
  }
  try {
    return arguments->run();
  } catch (const std::exception& error) {
    if (arguments->common.json) {
      fmt::print("{}\n", ErrorJson(error.what()));
    }
    fmt::print(stderr, "ip-sla-ctl: {}\n", error.what());
    const auto* const command_error = dynamic_cast<const CommandError*>(&error);
    return command_error != nullptr ? command_error->Status() : kExitNoDaemon;
  }
}

/// The long names of an app's options.
void AddOptionNames(const CLI::App& app, std::vector<std::string>* names) {
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names->push_back("--" + name);
    }
  }
}

/// What is wrong with the command line: as the library says it, but for words too many.
std::string UsageFault(const CLI::App& app, const CLI::ParseError& error) {
  std::vector<std::string> words = app.remaining();
  const CLI::App* command = &app;
  std::vector<std::string> options;
  AddOptionNames(app, &options);
  while (!command->get_subcommands().empty()) {
    command = command->get_subcommands().front();
    AddOptionNames(*command, &options);
    // Each command has the words that it could not use, the last one first.
    const std::vector<std::string> left = command->remaining();
    words.insert(words.end(), left.begin(), left.end());
  }
  std::vector<std::string> commands;
  for (const CLI::App* sub : command->get_subcommands({})) {
    commands.push_back(sub->get_name());
  }
  const auto is = [&error](CLI::ExitCodes code) {
    return error.get_exit_code() == static_cast<int>(code);
  };
  if (is(CLI::ExitCodes::RequiredError) && !words.empty() && words.front().starts_with('-')) {
    // What is missing is there, before the command that takes it or misspelt.
    return std::find(options.begin(), options.end(), words.front()) == options.end()
               ? Printable(client::SurplusText(words, commands, options))
               : fmt::format("option '{}' belongs behind '{}'", words.front(), command->get_name());
  }
  const bool is_about_them = !commands.empty() || is(CLI::ExitCodes::ExtrasError);
  return words.empty() || !is_about_them ? error.what()
                                         : Printable(client::SurplusText(words, commands, options));
}

int ParseAndRun(int argc, char** argv) {
  CLI::App app(kAbout, "ip-sla-ctl");
  Arguments arguments;
  AddOptions(&app, &arguments);
  AddShow(&app, &arguments);
  AddWatch(&app, &arguments);
  AddStatus(&app, &arguments);
  AddReload(&app, &arguments);
  AddCheck(&app, &arguments);
  AddTemplate(&app, &arguments);
  AddProbe(&app, &arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return app.exit(error);  // help and version
    }
    fmt::print(stderr, "ip-sla-ctl: {}\nRun with --help for more information.\n",
               UsageFault(app, error));
    return kExitUsage;
  }
  return Run(&arguments);
}

}  // namespace
}  // namespace ipsla::ctl

int main(int argc, char** argv) {
  try {
    return ipsla::ctl::ParseAndRun(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ip-sla-ctl: %s\n", error.what());
  } catch (...) {
    std::fputs("ip-sla-ctl: failed for an unknown reason\n", stderr);
  }
  return ipsla::ctl::kExitNoDaemon;
}
