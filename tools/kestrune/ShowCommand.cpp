#include "ShowCommand.h"

#include "CommonOptions.h"
#include "ModelJson.h"
#include "ModelTable.h"
#include "parser/ConfigParserCreator.h"

#include <iostream>
#include <memory>

namespace Kestrune::Cli {

namespace {

struct ShowOptions {
    std::string file;
    bool json = false;
    CommonOptions common;
};

} // namespace

void addShowCommand(CLI::App& app, int& status) {
    auto options = std::make_shared<ShowOptions>();
    CLI::App* command = app.add_subcommand(
        "show", "Parse a store exactly as the restore does and print the resulting model");
    command->add_option("FILE", options->file, "The persistent store to read")->required();
    command->add_flag("--json", options->json, "Print the model as one JSON object");
    options->common.addTo(*command);
    command->callback([options, &status] {
        options->common.apply();
        auto parser = configParserCreatorFactory()->createFrom(options->file);
        if (!parser) {
            std::cerr << "kestrune show: " << options->file
                      << ": no store of a known platform: " << whyNoStore() << "\n";
            status = 1;
            return;
        }
        auto config = parser->parse();
        if (options->json) {
            std::cout << modelJson(*config) << '\n';
        } else {
            printModelTable(std::cout, *config);
        }
        status = 0;
    });
}

} // namespace Kestrune::Cli
