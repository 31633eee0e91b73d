// Prints what the kernel holds in every namespace, as `kestrune simulate` reports it, so the
// restore benchmark can check that every way of restoring left the same state behind.
#include "state/KernelState.h"
#include "util/Namespace.h"

#include <iostream>

int main() {
    // The sandbox's own namespace is read as the default one, as the restore names it.
    mountDefaultNs();
    std::cout << Kestrune::kernelStateJson(Kestrune::kernelState()) << "\n";
    return 0;
}
