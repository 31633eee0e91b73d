#include "model/Config.h"
#include "parser/ConfigParserCreator.h"

#include <cstdio>

int main() {
    auto config = Kestrune::configFactory();
    config->interfaceIs(Kestrune::interfaceFactory("Ethernet1"));
    auto creator = Kestrune::configParserCreatorFactory();
    if (!creator || config->interface("Ethernet1")->mtu() != 9214) {
        std::puts("installed Kestrune does not work");
        return 1;
    }
    std::puts("installed Kestrune works");
    return 0;
}
