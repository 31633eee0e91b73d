#include "CheckCommand.h"

#include "CommonOptions.h"
#include "parser/StoreCheck.h"
#include "parser/StoreFile.h"
#include "state/FilterRules.h"
#include "util/Json.h"
#include "util/Text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>

namespace Kestrune::Cli {

namespace {

struct CheckOptions {
    std::string file;
    bool json = false;
    bool strict = false;
    CommonOptions common;
};

// What a restore from the store would come to, in a word.
std::string verdictOf(const std::vector<StoreProblem>& problems) {
    // Warnings change nothing the restore does.
    Consequence worst = Consequence::Warning;
    for (const auto& problem : problems) {
        worst = std::max(worst, problem.consequence);
    }
    if (worst == Consequence::Warning) {
        return "complete";
    }
    switch (worst) {
    case Consequence::EndsProcess:
        return "ends the process";
    case Consequence::NoRestore:
        return "no restore";
    default:
        return "incomplete";
    }
}

void printJson(const std::string& file, const std::vector<StoreProblem>& problems,
               const std::string& verdict) {
    rapidjson::StringBuffer buffer;
    PrettyJsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("file");
    writer.String(file);
    writer.Key("restore");
    writer.String(verdict);
    writer.Key("problems");
    writer.StartArray();
    for (const auto& problem : problems) {
        writer.StartObject();
        writer.Key("pointer");
        writer.String(problem.pointer);
        writer.Key("message");
        writer.String(problem.message);
        writer.Key("consequence");
        writer.String(std::string(textOf(problem.consequence)));
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    std::cout << buffer.GetString() << '\n';
}

void printText(const std::string& file, const std::vector<StoreProblem>& problems,
               const std::string& verdict) {
    for (const auto& problem : problems) {
        std::cout << escapedText(file) << ": " << escapedText(problem.pointer)
                  << (problem.pointer.empty() ? "" : ": ") << escapedText(problem.message) << " ("
                  << textOf(problem.consequence) << ")\n";
    }
    std::cout << escapedText(file) << ": " << problems.size()
              << (problems.size() == 1 ? " problem" : " problems") << "; the restore: " << verdict
              << '\n';
}

} // namespace

void addCheckCommand(CLI::App& app, int& status) {
    auto options = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Check a store before trusting a reboot to it: every problem, with its JSON "
                 "Pointer and what the restore would do about it. Exit status 0: nothing "
                 "ends the restore; 1: the restore would end the process or restore nothing "
                 "(or FILE is not JSON or cannot be read); with --strict, skipped entries and "
                 "sections, and keys the restore does not read, also give 1");
    command->add_option("FILE", options->file, "The persistent store to check")->required();
    command->add_flag("--json", options->json,
                      "Print {file, restore, problems: [{pointer, message, consequence}]}");
    command->add_flag(
        "--strict", options->strict,
        "Fail on skipped entries and sections, and on keys the restore does not read");
    options->common.addTo(*command);
    command->callback([options, &status] {
        options->common.apply();
        std::string bytes;
        std::string reason;
        const StoreFile::Outcome read = StoreFile::doRead(options->file, bytes, reason);
        if (read == StoreFile::Outcome::NotReadable) {
            std::cerr << "kestrune check: " << escapedText(reason) << '\n';
            status = 1;
            return;
        }
        // What the restore makes of a file that is there but is no store: nothing.
        auto problems = read == StoreFile::Outcome::Read
                            ? StoreCheck::problemsOf(bytes)
                            : std::vector<StoreProblem>{{"", reason, Consequence::NoRestore}};
        const auto fatal = [](const StoreProblem& p) {
            return p.consequence >= Consequence::NoRestore;
        };
        // Rule texts are loaded only for a store the restore gets as far as the rules with.
        if (std::none_of(problems.begin(), problems.end(), fatal)) {
            const auto rules = ruleTextProblemsOf(bytes);
            problems.insert(problems.end(), rules.begin(), rules.end());
        }
        const std::string verdict = verdictOf(problems);
        options->json ? printJson(options->file, problems, verdict)
                      : printText(options->file, problems, verdict);
        const bool ends = std::any_of(problems.begin(), problems.end(), fatal);
        status = ends || (options->strict && !problems.empty()) ? 1 : 0;
    });
}

} // namespace Kestrune::Cli
