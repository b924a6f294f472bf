// zorv replay EVENTS.jsonl
#include "Commands.h"

namespace zorv::cli {

CommandRun DefineReplay(CLI::App& command, const CommonOptions&) {
    command.add_option("events", "The event lines");
    return [] {
        PrintError("replay", "not built yet");
        return int(kExitError);
    };
}

}  // namespace zorv::cli
