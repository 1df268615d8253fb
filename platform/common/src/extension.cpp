// Extension registries and loadable extensions.
#include <cstdlib>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tarvex_extension.h"
#include "tarvex_split.h"

namespace {

// ---- registries ----

struct registry_entry {
    tarvex_module_descriptor_t *module;
    void *data;
};
// std::less<>: symbols are looked up as they come, without a std::string
// (whose allocation could throw into the C callers).
using registry_table = std::map<std::string, registry_entry, std::less<>>;

// One lock for every registry: registries are plain zero-initialised
// globals, so they cannot carry a lock of their own.
std::mutex registry_mutex;

registry_table *table_of(tarvex_extension_registry_t *registry)
{
    return static_cast<registry_table *>(registry->table);
}

const registry_entry *find_entry(tarvex_extension_registry_t *registry, const void *symbol)
{
    registry_table *table = table_of(registry);
    if (table == nullptr)
        return nullptr;
    auto it = table->find(static_cast<const char *>(symbol));
    return it == table->end() ? nullptr : &it->second;
}

// ---- loaded extensions ----

struct loaded_extension {
    void *handle;
    tarvex_module_descriptor_t *module;
    int references;
};

// Recursive: an extension's activation may load further extensions.
std::recursive_mutex loader_mutex;
std::map<std::string, loaded_extension, std::less<>> *loaded;
std::string search_path;
thread_local std::string last_error;

std::map<std::string, loaded_extension, std::less<>> &loaded_extensions()
{
    if (loaded == nullptr)
        loaded = new std::map<std::string, loaded_extension, std::less<>>;
    return *loaded;
}

// Appends the directories of a colon-separated list to `out`.
void split_path(const std::string &path, const std::string &file, std::vector<std::string> &out)
{
    tarvex::for_each_piece(path, ':', [&](std::string_view dir) {
        if (!dir.empty())
            out.push_back(std::string(dir) + '/' + file);
    });
}

// Opens libNAME.so along the search path; records the failure text.
void *open_library(const std::string &name)
{
    std::string file = "lib" + name + ".so";
    std::vector<std::string> candidates;
    split_path(search_path, file, candidates);
    if (const char *env = getenv("TARVEX_EXTENSION_PATH"))
        split_path(env, file, candidates);
    candidates.push_back(file); // the dynamic linker's own search

    std::string failure;
    for (const std::string &path : candidates) {
        void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle != nullptr)
            return handle;
        const char *why = dlerror();
        // Prefer the reason a file that exists failed to load over the
        // "not found" of the later candidates.
        bool exists = path.find('/') != std::string::npos && access(path.c_str(), F_OK) == 0;
        if (failure.empty() || exists)
            failure = why != nullptr ? why : path + ": cannot be loaded";
        if (exists)
            break;
    }
    last_error = "cannot load extension " + name + ": " + failure;
    return nullptr;
}

int activate_locked(const std::string &name)
{
    auto &extensions = loaded_extensions();
    auto it = extensions.find(name);
    if (it != extensions.end()) {
        it->second.references++;
        return 0;
    }
    void *handle = open_library(name);
    if (handle == nullptr)
        return -1;
    std::string symbol = name + "_module";
    dlerror();
    auto *module = static_cast<tarvex_module_descriptor_t *>(dlsym(handle, symbol.c_str()));
    if (module == nullptr) {
        last_error = "extension " + name + " has no symbol " + symbol;
        dlclose(handle);
        return -1;
    }
    int rc = tarvex_module_activate(module);
    if (rc != 0) {
        last_error = "activation of extension " + name + " failed (" + std::to_string(rc) + ")";
        dlclose(handle);
        return rc;
    }
    // The activation may have loaded this very extension through a nested
    // call; keep one record and count both references.
    it = extensions.find(name);
    if (it != extensions.end()) {
        it->second.references++;
        dlclose(handle);
        return 0;
    }
    extensions.emplace(name, loaded_extension{handle, module, 1});
    return 0;
}

} // namespace

extern "C" {

int tarvex_extension_registry_add(tarvex_extension_registry_t *registry, const void *symbol,
                                  tarvex_module_descriptor_t *module, void *data)
{
    if (registry == nullptr || symbol == nullptr)
        return -1;
    std::lock_guard<std::mutex> lock(registry_mutex);
    try {
        if (registry->table == nullptr)
            registry->table = new registry_table;
        auto [it, added] = table_of(registry)->try_emplace(
            static_cast<const char *>(symbol), registry_entry{module, data});
        (void)it;
        return added ? 0 : -1;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

void *tarvex_extension_registry_remove(tarvex_extension_registry_t *registry,
                                       const void *symbol)
{
    if (registry == nullptr || symbol == nullptr)
        return nullptr;
    std::lock_guard<std::mutex> lock(registry_mutex);
    registry_table *table = table_of(registry);
    if (table == nullptr)
        return nullptr;
    auto it = table->find(static_cast<const char *>(symbol));
    if (it == table->end())
        return nullptr;
    void *data = it->second.data;
    table->erase(it);
    if (table->empty()) {
        delete table;
        registry->table = nullptr;
    }
    return data;
}

void *tarvex_extension_lookup(tarvex_extension_registry_t *registry, const void *symbol)
{
    if (registry == nullptr || symbol == nullptr)
        return nullptr;
    std::lock_guard<std::mutex> lock(registry_mutex);
    const registry_entry *entry = find_entry(registry, symbol);
    return entry == nullptr ? nullptr : entry->data;
}

tarvex_module_descriptor_t *tarvex_extension_registry_module(
    tarvex_extension_registry_t *registry, const void *symbol)
{
    if (registry == nullptr || symbol == nullptr)
        return nullptr;
    std::lock_guard<std::mutex> lock(registry_mutex);
    const registry_entry *entry = find_entry(registry, symbol);
    return entry == nullptr ? nullptr : entry->module;
}

// Out of memory, the search path stays as it was.
void tarvex_extension_set_search_path(const char *path)
{
    try {
        std::lock_guard<std::recursive_mutex> lock(loader_mutex);
        search_path = path == nullptr ? "" : path;
    } catch (...) {
        // nothing to report it through
    }
}

int tarvex_extension_activate(const char *extension_name)
{
    last_error.clear();
    try {
        if (extension_name == nullptr || *extension_name == '\0') {
            last_error = "no extension name given";
            return -1;
        }
        std::lock_guard<std::recursive_mutex> lock(loader_mutex);
        return activate_locked(extension_name);
    } catch (...) {
        // Short enough to be kept without an allocation.
        last_error = "out of memory";
        return -1;
    }
}

int tarvex_extension_deactivate(const char *extension_name)
{
    if (extension_name == nullptr)
        return -1;
    std::lock_guard<std::recursive_mutex> lock(loader_mutex);
    if (loaded == nullptr)
        return -1; // nothing was ever loaded
    auto &extensions = *loaded;
    auto it = extensions.find(extension_name);
    if (it == extensions.end())
        return -1;
    if (--it->second.references > 0)
        return 0;
    loaded_extension extension = it->second;
    extensions.erase(it);
    int rc = tarvex_module_deactivate(extension.module);
    dlclose(extension.handle);
    return rc;
}

const char *tarvex_extension_last_error(void)
{
    return last_error.c_str();
}

} // extern "C"
