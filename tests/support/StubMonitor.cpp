// A kestmon.dll that Wine's own spooler can load: it asks for no registry, which that one gives to
// no monitor.
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

extern "C" LPMONITOR2 WINAPI InitializePrintMonitor2(PMONITORINIT, PHANDLE monitor) {
    static MONITOR2 table = {};
    table.cbSize = sizeof(table);
    *monitor = &table;
    return &table;
}
