#include "state/ExpectedState.h"

namespace Kestrune {

ExpectedState expectedState(const RestorePlan& plan) {
    ExpectedState state;
    state.namespaces = plan.namespaces;
    for (const PlannedDevice& device : plan.devices) {
        if (device.notMade == NotMade::no) {
            state.devices.push_back(device);
        }
    }
    state.iptables = plan.iptables;
    state.ip6tables = plan.ip6tables;
    return state;
}

ExpectedState expectedState(const Config& config, bool simulatedSwitch, bool valueRanges) {
    return expectedState(restorePlan(config, simulatedSwitch, valueRanges));
}

} // namespace Kestrune
