// What a process costs that is linked to sd-bus and ends before it used it.
#include <systemd/sd-bus.h>

int main(int count, char**) {
    sd_bus* bus = nullptr;
    return count > 99 && sd_bus_new(&bus) == 0 ? 1 : 0;
}
