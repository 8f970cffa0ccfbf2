// pathfinder config FILE [KEY [VALUE]]: list the keys of a configuration file, print one
// value, or change one, through the module's configuration editor (notes and layout kept).
#include <cstdio>

#include "Commands.h"

namespace pfapp {

namespace {

struct ConfigOptions {
    std::string file;
    std::string key;
    std::string value;
    bool binary = false;
    bool valueGiven = false;
};

int runConfig(const ConfigOptions& o) {
    if (o.key.empty()) {
        for (const auto& entry : host::readConfigFile(o.file, o.binary)) {
            std::printf("%s = %s\n", entry.first.c_str(), entry.second.c_str());
        }
    } else if (!o.valueGiven) {
        std::printf("%s\n", host::configValue(o.file, o.key, o.binary).c_str());
    } else {
        const std::string was = host::changeConfigValue(o.file, o.key, o.value, o.binary);
        std::printf("%s = %s (was %s)\n", o.key.c_str(), o.value.c_str(), was.c_str());
    }
    return host::kExitOk;
}

}  // namespace

void addConfigCommand(CLI::App& app, CommandRun& run) {
    auto o = std::make_shared<ConfigOptions>();
    CLI::App* sub = app.add_subcommand(
        "config", "read or change keys of a configuration file (notes and layout are kept)");
    sub->add_option("FILE", o->file, "configuration file")->required();
    sub->add_option("KEY", o->key, "key to print or change (none: list every key)");
    auto* value = sub->add_option("VALUE", o->value, "new value of KEY");
    sub->add_flag("--binary", o->binary, "the file is in the scrambled binary form");
    sub->callback([o, value, &run] {
        o->valueGiven = value->count() > 0;
        run.run = [o] { return runConfig(*o); };
    });
}

}  // namespace pfapp
