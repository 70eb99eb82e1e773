// The application's callbacks, and the handlers that stand between them and the parsers.
#include "indication/state.h"

#include <stdlib.h>

using namespace tavrik;

namespace {

constexpr int kSmsIncoming = 0, kVoiceCall = 1, kDataCall = 2, kEcall = 3, kStartedDataCall = 4, kNetwork = 5, kSim = 6,
              kCell = 7, kSignal = 8;

template <class Callback>
Callback callback_of(Slot slot) {
    RegistryLock lock;
    return reinterpret_cast<Callback>(g_registry.callbacks[slot]);
}

// Is there a record, of an event that the handler serves? Logs for the handler.
bool acceptable(bool served, int event, const void *record, Site site = Site::here()) {
    if (!served)
        log(Level::error, site, "%s, [SDK_IND]: event not for me %d", site.function, event);
    else if (!record)
        log(Level::error, site, "%s, [SDK_IND]: error pointer %d", site.function, event);
    return served && record;
}

void tavrik_ind_message_handle(int event, void *record) {
    if (!acceptable(true, event, record))
        return;
    switch (event) {
    case kSmsIncoming:
        if (auto callback = callback_of<Tavrik_SmsCb>(kSlotSms))
            callback(kSmsIncoming, record); // and the record is the application's
        else
            free(record);
        break;
    case kVoiceCall:
        if (auto callback = callback_of<Tavrik_CallCb>(kSlotVoice))
            callback(static_cast<const Tavrik_CallList *>(record));
        break;
    case kEcall:
        if (auto callback = callback_of<Tavrik_EcallCb>(kSlotEcall)) {
            const auto copy = *static_cast<const EcallEvent *>(record);
            callback(copy.value, &copy.text);
        }
        break;
    case kCell:
    case kSignal:
        if (auto callback = callback_of<Tavrik_CellCb>(kSlotCell))
            callback(record);
        break;
    }
}

// Callbacks of these get a copy of the record.
template <class Record>
void hand_over(Slot slot, const void *record) {
    const auto copy = *static_cast<const Record *>(record);
    if (auto callback = callback_of<void (*)(const Record *)>(slot))
        callback(&copy);
}

void tavrik_ind_datacall_handle(int event, void *record) {
    if (acceptable(event == kDataCall || event == kStartedDataCall, event, record))
        hand_over<Tavrik_DataEvent>(kSlotData, record);
}

void tavrik_ind_nw_handle(int event, void *record) {
    if (acceptable(event == kNetwork, event, record))
        hand_over<Tavrik_NwEvent>(kSlotNetwork, record);
}

void tavrik_ind_simcard_handle(int event, void *record) {
    if (acceptable(event == kSim, event, record))
        hand_over<Tavrik_SimEvent>(kSlotSim, record);
}

struct Category {
    Slot slot;
    Tavrik_IndicationHandler handler;
};

constexpr Category kCategories[] = {
    {kSlotSms, tavrik_ind_message_handle},   // TAVRIK_IND_SMS
    {kSlotVoice, tavrik_ind_message_handle}, // TAVRIK_IND_VOICE
    {kSlotData, tavrik_ind_datacall_handle}, // TAVRIK_IND_DATA
    {kSlotEcall, tavrik_ind_message_handle}, // TAVRIK_IND_ECALL
    {kSlotNetwork, tavrik_ind_nw_handle},    // TAVRIK_IND_NETWORK
    {kSlotSim, tavrik_ind_simcard_handle},   // TAVRIK_IND_SIM
    {kSlotCell, tavrik_ind_message_handle},  // TAVRIK_IND_CELL
};
constexpr int kCategoryCount = sizeof kCategories / sizeof *kCategories;

// Locked: everything back to the beginning. The reader is for end_reader().
Reader *clear_all() {
    for (int slot = 0; slot < kSlotCount; ++slot) {
        g_registry.callbacks[slot] = nullptr;
        g_registry.handlers[slot] = nullptr;
    }
    g_registry.count = 0;
    g_registry.initialised = false;
    g_registry.generation++;
    reset_sms();
    return take_reader();
}

int deregister(unsigned slots, int registrations, Site site = Site::here()) {
    Reader *reader = nullptr;
    int count;
    uint64_t newest;
    {
        RegistryLock lock;
        newest = g_registry.newest;
        count = g_registry.count -= registrations;
        if (!count)
            reader = clear_all();
        for (int slot = 0; slot < kSlotCount; ++slot)
            if (slots >> slot & 1)
                g_registry.callbacks[slot] = nullptr;
    }
    log(Level::info, site, "indication_register_number:%d", count);
    if (!count)
        end_loop();
    wait_for_callbacks(count ? slots : kAllSlots, newest, site);
    end_reader(reader);
    tavrik_ubus_thread_deinit();
    return 0;
}

} // namespace

void tavrik::end_loop() {
    Wait wait = {1u << kLoopThread, 0, {}, nullptr};
    {
        RegistryLock lock;
        enter(wait);
    }
    tavrik_ubus_deinit();
    RegistryLock lock;
    leave(wait);
}

int tavrik_indication_register(int category, Tavrik_IndicationCb callback) {
    if (category < 0 || category > kCategoryCount || !callback)
        return -1;
    unsigned generation;
    {
        RegistryLock lock;
        if (!g_registry.initialised)
            for (auto &handler : g_registry.handlers)
                handler = nullptr;
        if (category == kCategoryCount)
            return -1;
        const Category &entry = kCategories[category];
        g_registry.handlers[entry.slot] = entry.handler;
        if (!g_registry.callbacks[entry.slot]) {
            g_registry.callbacks[entry.slot] = callback;
            g_registry.count++;
        }
        g_registry.initialised = true;
        generation = g_registry.generation;
    }
    pthread_t thread;
    if (!start_indication_thread(generation, &thread)) {
        TAVRIK_LOG_ERROR("indication thread id < 0");
        return -1;
    }
    return 0;
}

int tavrik_indication_deregister(void) {
    Reader *reader;
    uint64_t newest;
    {
        RegistryLock lock;
        newest = g_registry.newest;
        reader = clear_all();
    }
    wait_for_callbacks(kAllSlots, newest, Site::here());
    end_reader(reader);
    return 0;
}

int tavrik_indication_smsderegister(void) {
    return deregister(1u << kSlotSms, 1);
}

int tavrik_indication_voicecallderegister(void) {
    return deregister(1u << kSlotVoice, 1);
}

int tavrik_indication_datacallderegister(void) {
    return deregister(1u << kSlotData, 1);
}

int tavrik_indication_ecallderegister(void) {
    return deregister(1u << kSlotEcall, 1);
}

// Of two categories, and so counted as two, whichever of them had a callback.
int tavrik_indication_nwderegister(void) {
    return deregister(1u << kSlotNetwork | 1u << kSlotCell, 2);
}

int tavrik_indication_uimderegister(void) {
    return deregister(1u << kSlotSim, 1);
}

int add_ind_cb(int slot, Tavrik_IndicationHandler handler) {
    RegistryLock lock;
    if (slot >= 0 && slot < kSlotCount)
        g_registry.handlers[slot] = handler;
    return 0;
}

void remove_ind_cb(void) {
    RegistryLock lock;
    for (auto &handler : g_registry.handlers)
        handler = nullptr;
}
