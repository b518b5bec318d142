// A client of a message bus, at the address of its first argument, that only connected.
#include "Connected.h"

#include <systemd/sd-bus.h>

int main(int count, char** arguments) {
    sd_bus* bus = nullptr;
    if (count != 2 || sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, arguments[1]) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0)
        return 1;
    const char* name = nullptr;
    if (sd_bus_get_unique_name(bus, &name) < 0) return 1;  // waits for the bus's greeting
    stayConnected();
}
