// prefs.cpp - settings containers and the per-plugin preferences store, kept
// in memory or in a JSON file that is read once and written after each
// change.
#include "internal.hpp"

#include <nlohmann/json.hpp>

#include <charconv>
#include <cstdlib>
#include <fstream>
#include <limits>

namespace bf {

namespace {

using Value = std::variant<bool, int32_t, double>;

Host::Impl& State() {
    return Host::Get().impl();
}

// The containers stored by id, and the file that keeps them when one is set.
struct PreferenceStore {
    std::mutex mutex;
    std::map<int32_t, KPX_CONTAINER> containers;
    std::filesystem::path file;
};

PreferenceStore& Store() {
    static PreferenceStore store;
    return store;
}

// "1000001" -> 1000001; anything else that is not a whole int32 is refused.
std::optional<int32_t> ParseKey(const std::string& text) {
    int32_t key = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), key);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return key;
}

// File content: {"<id>": {"<key>": true | 12 | 0.5, ...}, ...}. Entries of
// another shape are skipped, so a hand-edited file loses only what is wrong.
std::map<int32_t, KPX_CONTAINER> FromJson(const nlohmann::json& json) {
    std::map<int32_t, KPX_CONTAINER> containers;
    if (!json.is_object()) throw std::runtime_error("not a JSON object");
    for (const auto& [id_text, entries] : json.items()) {
        const auto id = ParseKey(id_text);
        if (!id || !entries.is_object()) continue;
        KPX_CONTAINER& container = containers[*id];
        for (const auto& [key_text, value] : entries.items()) {
            const auto key = ParseKey(key_text);
            if (!key) continue;
            if (value.is_boolean()) {
                container.values[*key] = value.get<bool>();
            } else if (value.is_number_integer()) {
                const auto number = value.get<int64_t>();
                if (number >= std::numeric_limits<int32_t>::min() &&
                    number <= std::numeric_limits<int32_t>::max())
                    container.values[*key] = int32_t(number);
            } else if (value.is_number_float()) {
                container.values[*key] = value.get<double>();
            }
        }
    }
    return containers;
}

nlohmann::json ToJson(const std::map<int32_t, KPX_CONTAINER>& containers) {
    nlohmann::json json = nlohmann::json::object();
    for (const auto& [id, container] : containers) {
        nlohmann::json& entries = json[std::to_string(id)] = nlohmann::json::object();
        for (const auto& [key, value] : container.values)
            std::visit([&](auto v) { entries[std::to_string(key)] = v; }, value);
    }
    return json;
}

// Writes a sibling file first and renames it over the old one, so a crash
// never leaves half a file.
void Save(const PreferenceStore& store) {
    std::filesystem::create_directories(store.file.parent_path());
    const std::filesystem::path temporary = store.file.string() + ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << ToJson(store.containers).dump(2) << '\n';
        if (!out.flush()) throw std::runtime_error("cannot write " + temporary.string());
    }
    std::filesystem::rename(temporary, store.file);
}

// Stores a copy under `id` and saves; false when the file could not be written
// (the store in memory has the change all the same).
bool Keep(int32_t id, const KPX_CONTAINER& container) {
    PreferenceStore& store = Store();
    std::lock_guard lock(store.mutex);
    store.containers[id] = container;
    if (store.file.empty()) return true;
    try {
        Save(store);
        return true;
    } catch (const std::exception& e) {
        State().message(std::string("preferences not saved: ") + e.what());
        return false;
    }
}

KPX_CONTAINER Fetch(int32_t id) {
    PreferenceStore& store = Store();
    std::lock_guard lock(store.mutex);
    auto found = store.containers.find(id);
    return found == store.containers.end() ? KPX_CONTAINER{} : found->second;
}

template <class T>
T Get(const KPX_CONTAINER* container, int32_t key, T fallback) {
    if (!container) return fallback;
    auto found = container->values.find(key);
    if (found == container->values.end()) return fallback;
    const T* value = std::get_if<T>(&found->second);
    return value ? *value : fallback;
}

template <class T>
void Set(KPX_CONTAINER* container, int32_t key, T value) {
    if (!container) return;
    try {
        container->values[key] = value;
    } catch (...) {
    }
}

// ---- the operations ----

KPX_CONTAINER* ContainerCreate() noexcept {
    State().record("ContainerCreate", {});
    try {
        auto* container = new KPX_CONTAINER;
        ++State().live_objects;
        return container;
    } catch (...) {
        return nullptr;
    }
}

void ContainerFree(KPX_CONTAINER* container) noexcept {
    State().record("ContainerFree", {});
    if (!container) return;
    delete container;
    --State().live_objects;
}

uint8_t ContainerGetBool(const KPX_CONTAINER* container, int32_t key, uint8_t fallback) noexcept {
    State().record("ContainerGetBool", {key, fallback});
    return Get<bool>(container, key, fallback != 0);
}

int32_t ContainerGetInt(const KPX_CONTAINER* container, int32_t key, int32_t fallback) noexcept {
    State().record("ContainerGetInt", {key, fallback});
    return Get<int32_t>(container, key, fallback);
}

double ContainerGetReal(const KPX_CONTAINER* container, int32_t key, double fallback) noexcept {
    State().record("ContainerGetReal", {key});
    return Get<double>(container, key, fallback);
}

void ContainerSetBool(KPX_CONTAINER* container, int32_t key, uint8_t value) noexcept {
    State().record("ContainerSetBool", {key, value});
    Set<bool>(container, key, value != 0);
}

void ContainerSetInt(KPX_CONTAINER* container, int32_t key, int32_t value) noexcept {
    State().record("ContainerSetInt", {key, value});
    Set<int32_t>(container, key, value);
}

void ContainerSetReal(KPX_CONTAINER* container, int32_t key, double value) noexcept {
    State().record("ContainerSetReal", {key});
    Set<double>(container, key, value);
}

KPX_CONTAINER* GetPluginPreferences(int32_t id) noexcept {
    State().record("GetPluginPreferences", {id});
    try {
        auto* copy = new KPX_CONTAINER(Fetch(id));
        ++State().live_objects;
        return copy;
    } catch (...) {
        return nullptr;
    }
}

uint8_t SetPluginPreferences(int32_t id, const KPX_CONTAINER* container) noexcept {
    State().record("SetPluginPreferences", {id});
    if (!container) return 0;
    try {
        return Keep(id, *container);
    } catch (...) {
        return 0;
    }
}

}  // namespace

const KPX_PREFS_API kPrefsApi{sizeof(KPX_PREFS_API), ContainerCreate,     ContainerFree,
                              ContainerGetBool,      ContainerGetInt,     ContainerGetReal,
                              ContainerSetBool,      ContainerSetInt,     ContainerSetReal,
                              GetPluginPreferences,  SetPluginPreferences};

// A missing file is an empty store; an unreadable one is reported and
// replaced at the next save.
void SetPreferencesFile(const std::filesystem::path& file) {
    std::map<int32_t, KPX_CONTAINER> loaded;
    if (!file.empty() && std::filesystem::exists(file)) {
        try {
            std::ifstream in(file);
            loaded = FromJson(nlohmann::json::parse(in));
        } catch (const std::exception& e) {
            State().message("preferences file " + file.string() + " ignored: " + e.what());
        }
    }
    PreferenceStore& store = Store();
    std::lock_guard lock(store.mutex);
    store.file = file;
    store.containers = std::move(loaded);
}

std::filesystem::path DefaultPreferencesFile() {
    std::filesystem::path folder;
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/')
        folder = config;
    else if (const char* home = std::getenv("HOME"); home && *home)
        folder = std::filesystem::path(home) / ".config";
    else
        folder = ".config";
    return folder / "bitmapfilter" / "preferences.json";
}

bool GetPreference(int32_t container, int32_t key, bool fallback) {
    const KPX_CONTAINER copy = Fetch(container);
    return Get<bool>(&copy, key, fallback);
}

void SetPreference(int32_t container, int32_t key, bool value) {
    KPX_CONTAINER copy = Fetch(container);
    copy.values[key] = value;
    Keep(container, copy);
}

}  // namespace bf
