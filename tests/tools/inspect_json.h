#pragma once

// The inspector's JSON objects, read with a JSON library into a flat map from paths to
// values: members by name and items by index, joined with '.' ("services.0.service_id");
// strings unescaped, numbers and literals as JSON writes them, containers as "{}" or "[]".

#include <map>
#include <nlohmann/json.hpp>
#include <string>

namespace inspect_test {

using Json = std::map<std::string, std::string>;

// The value at `path`, or "" when there is none.
inline std::string at(const Json& j, const std::string& path) {
    const auto v = j.find(path);
    return v == j.end() ? std::string() : v->second;
}

inline void flatten(const nlohmann::json& v, const std::string& path, Json& out) {
    const std::string prefix = path.empty() ? path : path + ".";
    if (v.is_object()) {
        out[path] = "{}";
        for (const auto& [key, item] : v.items()) {
            flatten(item, prefix + key, out);
        }
    } else if (v.is_array()) {
        out[path] = "[]";
        for (size_t i = 0; i < v.size(); ++i) {
            flatten(v[i], prefix + std::to_string(i), out);
        }
    } else {
        out[path] = v.is_string() ? v.get<std::string>() : v.dump();
    }
}

// Fails unless `text` is one well-formed JSON object.
inline bool parse_json(const std::string& text, Json& out) {
    out.clear();
    const nlohmann::json v = nlohmann::json::parse(text, nullptr, false);
    if (v.is_discarded() || !v.is_object()) {
        return false;
    }
    flatten(v, "", out);
    return true;
}

}  // namespace inspect_test
