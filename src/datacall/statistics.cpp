#include "datacall/statistics.h"

#include "datacall/names.h"

#include <initializer_list>

namespace tavrik {

bool open_statistics(UciStore &store) {
    return store.open(kStatistics, " uci_ctx init faild!", " open file error!");
}

void zero_counters(UciStore &store, int cid) {
    const ContextName section("ccinet", cid);
    if (!store.section(section.text))
        store.set(section.text, nullptr, "interface_name");
    for (const char *counter : {"rx_bytes", "tx_bytes", "rx_pkts", "tx_pkts", "rx_dropped_pkts", "tx_dropped_pkts"})
        store.set(section.text, counter, "0");
}

} // namespace tavrik
