// Reference-counted module activation.
//
// Activation functions may activate other modules (and a module's own
// activation may even reach back to itself), so no lock is held while they
// run.  A module whose activation is under way in another thread is waited
// for; a nested activation of it from the activating thread itself only
// counts a reference.
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <unordered_map>
#include <vector>

#include "tarvex_c_edge.h"
#include "tarvex_module.h"

using tarvex::at_c_edge;

namespace {

struct module_state {
    int count = 0;
    bool busy = false; // activation or deactivation function running
    pthread_t owner{};
};

struct registry {
    std::mutex mutex;
    std::condition_variable changed;
    std::unordered_map<const tarvex_module_descriptor_t *, module_state> modules;
    bool atexit_registered = false;
};

registry &the_registry()
{
    // Never destroyed: modules may be deactivated during process exit.
    static registry *instance = new registry;
    return *instance;
}

// Runs the exit hooks of the modules still active when the process exits.
// Called by exit(), from C: with no memory for the list, no hook runs.
void run_atexit_hooks() noexcept
{
    std::vector<tarvex_module_atexit_func_t> hooks;
    try {
        registry &r = the_registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        for (const auto &[module, state] : r.modules) {
            if (state.count > 0 && module->atexit_func != nullptr)
                hooks.push_back(module->atexit_func);
        }
    } catch (...) {
        return;
    }
    for (auto hook : hooks)
        hook();
}

// Waits until no other thread runs the module's functions.  Returns the
// module's state with the lock held.
module_state &settle(registry &r, std::unique_lock<std::mutex> &lock,
                     const tarvex_module_descriptor_t *module)
{
    for (;;) {
        module_state &state = r.modules[module];
        if (!state.busy || pthread_equal(state.owner, pthread_self()))
            return state;
        r.changed.wait(lock);
    }
}

int activate(tarvex_module_descriptor_t *module)
{
    registry &r = the_registry();
    std::unique_lock<std::mutex> lock(r.mutex);
    module_state &state = settle(r, lock, module);
    if (state.count > 0 || state.busy) {
        state.count++;
        return 0;
    }
    state.busy = true;
    state.owner = pthread_self();
    if (module->atexit_func != nullptr && !r.atexit_registered) {
        r.atexit_registered = true;
        std::atexit(run_atexit_hooks);
    }
    lock.unlock();

    int rc = module->activation_func == nullptr ? 0 : module->activation_func();

    lock.lock();
    module_state &after = r.modules[module]; // the map may have rehashed
    after.busy = false;
    // Nested references taken during a failed activation are void too.
    after.count = rc == 0 ? after.count + 1 : 0;
    if (after.count == 0)
        r.modules.erase(module);
    r.changed.notify_all();
    return rc;
}

int deactivate(tarvex_module_descriptor_t *module)
{
    registry &r = the_registry();
    std::unique_lock<std::mutex> lock(r.mutex);
    module_state &state = settle(r, lock, module);
    if (state.count <= 0) {
        if (!state.busy)
            r.modules.erase(module);
        return -1;
    }
    if (state.count > 1 || state.busy) {
        state.count--;
        return 0;
    }
    state.busy = true;
    state.owner = pthread_self();
    lock.unlock();

    int rc = module->deactivation_func == nullptr ? 0 : module->deactivation_func();

    lock.lock();
    module_state &after = r.modules[module];
    after.busy = false;
    after.count = 0;
    // Forget it: the descriptor may live in a library about to be unloaded.
    r.modules.erase(module);
    r.changed.notify_all();
    return rc;
}

} // namespace

extern "C" {

// Called from C.  What can throw (the registry's first allocation and a
// module's first entry in it) comes before any activation or deactivation
// function runs, so an exception means that none ran: -1.
int tarvex_module_activate(tarvex_module_descriptor_t *module)
{
    if (module == nullptr)
        return -1;
    return at_c_edge(-1, [&] { return activate(module); });
}

int tarvex_module_deactivate(tarvex_module_descriptor_t *module)
{
    if (module == nullptr)
        return -1;
    return at_c_edge(-1, [&] { return deactivate(module); });
}

int tarvex_module_activation_count(const tarvex_module_descriptor_t *module)
{
    if (module == nullptr)
        return 0;
    return at_c_edge(0, [&] {
        registry &r = the_registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.modules.find(module);
        return it == r.modules.end() ? 0 : it->second.count;
    });
}

} // extern "C"
