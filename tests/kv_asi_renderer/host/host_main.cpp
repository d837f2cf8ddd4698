// A host built from the installed headers and pkg-config file alone: it hands a stand-in
// element an alarm manager and prints what the alarms' and statistics' virtual calls give.

#include <dlfcn.h>

#include <iostream>
#include <map>
#include <memory>

#include <kv_asi_renderer/kv_asi_renderer_statistics.h>
#include <kv_asi_renderer/kv_i_alarm_manager.h>

namespace {

struct host_alarm_manager : kv_i_alarm_manager {
    void register_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override {
        alarms[alarm->get_data().code] = alarm;
    }
    void unregister_alarm(std::shared_ptr<kv_i_alarm_event> alarm) override {
        alarms.erase(alarm->get_data().code);
    }
    std::map<int, std::shared_ptr<kv_i_alarm_event>> alarms;
};

}  // namespace

int main(int argc, char** argv) {
    void* module = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (module == nullptr) {
        std::cout << "cannot load the element stub\n";
        return 2;
    }
    auto element_new =
        reinterpret_cast<void* (*)(const char*, void*)>(dlsym(module, "kv_stub_element_new"));
    auto statistics =
        reinterpret_cast<void* (*)(void*)>(dlsym(module, "kv_stub_element_statistics"));
    auto play = reinterpret_cast<void (*)(void*)>(dlsym(module, "kv_stub_element_play"));
    auto stop_and_free =
        reinterpret_cast<void (*)(void*)>(dlsym(module, "kv_stub_element_stop_and_free"));

    host_alarm_manager manager;
    void* element = element_new("out1", static_cast<kv_i_alarm_manager*>(&manager));
    play(element);
    for (auto& item : manager.alarms) {
        kv_i_alarm_event& alarm = *item.second;
        const bool fired = alarm.check();
        std::cout << "alarm: " << alarm.get_log_message() << " | check=" << fired
                  << " active=" << alarm.active() << " pid=" << alarm.get_data().stream_pid << "\n";
    }
    const kv_base_statistics* stats = static_cast<kv_asi_renderer_statistics*>(statistics(element));
    for (const auto& row : stats->get_items()) {
        std::cout << "row: " << row.first << " = " << row.second << "\n";
    }
    stop_and_free(element);
    std::cout << "alarms held after stop: " << manager.alarms.size() << "\n";
    return 0;
}
