// A repair as people and programs read it.
#include "state/Repair.h"
#include "util/Json.h"

namespace Kestrune {

std::string Repair::text() const {
    if (!read) {
        return "The kernel could not be read: " + problem + "\n";
    }
    std::string out;
    std::size_t toTake = 0;
    for (const RepairStep& step : steps) {
        toTake += step.left ? 0 : 1;
        out += step.left ? "  left  "
               : applied ? (step.done ? "  done  " : "  FAILED")
                         : "  do    ";
        out += " " + step.ns + " " + step.device + ": " + step.what;
        if (step.left) {
            out += " (" + step.why + ")";
        } else if (applied && !step.done) {
            out += ": " + step.failure;
        }
        out += "\n";
    }
    if (steps.empty()) {
        return "Nothing to repair: the kernel matches the store.\n";
    }
    if (!applied) {
        return out + std::to_string(toTake) + " step(s) would put back what drifted; nothing was " +
               "changed (--apply takes them).\n";
    }
    return out + "Verified again: " + after.text();
}

std::string Repair::json() const {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("applied");
    writer.Bool(applied);
    if (!read) {
        writer.Key("error");
        writer.String(problem.c_str());
    }
    writer.Key("steps");
    writer.StartArray();
    for (const RepairStep& step : steps) {
        writer.StartObject();
        writer.Key("namespace");
        writer.String(step.ns);
        writer.Key("device");
        writer.String(step.device);
        writer.Key("step");
        writer.String(step.what);
        writer.Key("left");
        writer.Bool(step.left);
        if (step.left) {
            writer.Key("why");
            writer.String(step.why);
        } else if (applied) {
            writer.Key("done");
            writer.Bool(step.done);
            if (!step.done) {
                writer.Key("failure");
                writer.String(step.failure);
            }
        }
        writer.EndObject();
    }
    writer.EndArray();
    if (applied) {
        writer.Key("matchesAfter");
        writer.Bool(after.read && after.drift.empty());
        writer.Key("driftAfter");
        writer.Uint64(after.drift.size());
    }
    writer.EndObject();
    return buffer.GetString();
}

} // namespace Kestrune
