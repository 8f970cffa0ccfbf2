// pathfinder config FILE [KEY [VALUE]]: list the keys of a configuration file, print one
// value, or change one, through the module's configuration editor (notes and layout kept).
#include <cstdio>
#include <fstream>

#include "Commands.h"
#include "platform/Platform.h"
#include "utils/ConfigEditor.h"

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
    if (!platform::fileExists(o.file) || !std::ifstream(o.file)) {
        throw AppError(kExitInputFile, "cannot read " + o.file);
    }
    zq::utils::CConfigEditor editor;
    if (!editor.load(platform::widePath(o.file), o.binary, true)) {
        throw AppError(kExitInputFile, o.file + ": not a " +
                                           std::string(o.binary ? "binary" : "text") +
                                           " configuration file");
    }
    // Reading must leave the file untouched (the editor saves when it is destroyed).
    struct Release {
        zq::utils::CConfigEditor& e;
        bool save = false;
        ~Release() { e.close(save); }
    } release{editor};

    if (o.key.empty()) {
        std::vector<std::wstring> keys;
        editor.getAllKeys(&keys);
        for (const std::wstring& k : keys) {
            std::wstring v;
            editor.findKey(k, &v);
            std::printf("%s = %s\n", editor.toString(k).c_str(), editor.toString(v).c_str());
        }
        return kExitOk;
    }
    const std::wstring key = editor.toWString(o.key);
    std::wstring current;
    if (!editor.findKey(key, &current) || !editor.contains(key)) {
        throw AppError(kExitUnknownKey, "unknown key " + o.key + " in " + o.file);
    }
    if (!o.valueGiven) {
        std::printf("%s\n", editor.toString(current).c_str());
        return kExitOk;
    }
    if (!editor.modify(o.key, o.value)) {
        throw AppError(kExitFailure, "cannot change " + o.key);
    }
    if (!editor.save(true)) {
        throw AppError(kExitOutput, "cannot write " + o.file);
    }
    std::printf("%s = %s (was %s)\n", o.key.c_str(), o.value.c_str(),
                editor.toString(current).c_str());
    return kExitOk;
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
