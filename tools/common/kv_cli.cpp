#include "kv_cli.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace kv_cli {

bool to_uint(const std::string& text, uint64_t max, uint64_t& value) {
    if (text.empty() || !(std::isdigit(static_cast<unsigned char>(text[0])))) {
        return false;  // strtoull would take a sign or leading blanks
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max) {
        return false;
    }
    value = v;
    return true;
}

bool to_double(const std::string& text, double min, double max, double& value) {
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(v) || v < min || v > max) {
        return false;
    }
    value = v;
    return true;
}

struct parser::entry {
    std::string name;  // "--long"
    char short_name = 0;
    const char* expected = nullptr;
    std::function<bool(const std::string&)> set;  // options with a value
    bool* flag = nullptr;                         // flags
    bool flag_value = true;
    GOptionEntry option{};
};

parser::parser(const char* tool, const char* parameters, const char* summary)
    : m_tool(tool), m_context(g_option_context_new(parameters)) {
    g_option_context_set_help_enabled(m_context, FALSE);
    if (summary != nullptr) {
        g_option_context_set_description(m_context, summary);
    }
    flag("help", 'h', m_bHelp, "Show this help and exit");
    flag("help-all", 0, m_bHelpAll, "Show the help of every group of options and exit");
    flag("version", 0, m_bVersion, "Show the version and exit");
}

parser::~parser() {
    g_option_context_free(m_context);
}

const char* parser::keep(const std::string& text) {
    m_texts.push_back(std::make_unique<std::string>(text));
    return m_texts.back()->c_str();
}

parser::entry& parser::add(const char* name, char short_name, int flags, const char* help,
                           const char* arg) {
    auto e = std::make_unique<entry>();
    e->name = std::string("--") + name;
    e->short_name = short_name;
    e->option = {name,
                 short_name,
                 flags,
                 G_OPTION_ARG_CALLBACK,
                 reinterpret_cast<gpointer>(&parser::on_option),
                 help,
                 arg};
    m_entries.push_back(std::move(e));
    return *m_entries.back();
}

parser& parser::flag(const char* name, char short_name, bool& target, const char* help,
                     bool value) {
    entry& e = add(name, short_name, G_OPTION_FLAG_NO_ARG, help, nullptr);
    e.flag = &target;
    e.flag_value = value;
    return *this;
}

parser& parser::option(const char* name, char short_name, const char* arg, const char* help,
                       const char* expected, std::function<bool(const std::string&)> set) {
    entry& e = add(name, short_name, G_OPTION_FLAG_NONE, help, arg);
    e.expected = expected;
    e.set = std::move(set);
    return *this;
}

parser& parser::text(const char* name, char short_name, const char* arg, const char* help,
                     std::string& target) {
    return option(name, short_name, arg, help, "a text", [&target](const std::string& v) {
        target = v;
        return true;
    });
}

parser& parser::group(GOptionGroup* group) {
    g_option_context_add_group(m_context, group);
    return *this;
}

parser& parser::version_detail(std::string text) {
    m_versionDetail = std::move(text);
    return *this;
}

gboolean parser::on_option(const gchar* name, const gchar* value, gpointer data, GError** error) {
    auto* self = static_cast<parser*>(data);
    for (const auto& e : self->m_entries) {
        const bool bLong = e->name == name;
        const bool bShort =
            e->short_name != 0 && name[0] == '-' && name[1] == e->short_name && name[2] == '\0';
        if (!bLong && !bShort) {
            continue;
        }
        if (e->flag != nullptr) {
            *e->flag = e->flag_value;
            return TRUE;
        }
        if (e->set(value != nullptr ? value : "")) {
            return TRUE;
        }
        g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, "%s: '%s' is not %s", name,
                    value != nullptr ? value : "", e->expected);
        return FALSE;
    }
    g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_UNKNOWN_OPTION, "unknown option %s", name);
    return FALSE;
}

int parser::usage_error(const std::string& text, FILE* err) const {
    std::fprintf(err, "%s: %s (try --help)\n", m_tool.c_str(), text.c_str());
    return 2;
}

// GLib lets "--flag=value" through for an option that takes no value: the first flag
// given so, or "".
std::string parser::flag_with_value(const std::vector<std::string>& args) const {
    for (const std::string& a : args) {
        if (a == "--") {
            break;
        }
        const size_t eq = a.find('=');
        for (const auto& e : m_entries) {
            if (e->flag != nullptr && eq == e->name.size() && a.compare(0, eq, e->name) == 0) {
                return e->name;
            }
        }
    }
    return std::string();
}

int parser::parse(const std::vector<std::string>& args, std::vector<std::string>& positional,
                  FILE* out, FILE* err) {
    std::vector<GOptionEntry> options;
    for (const auto& e : m_entries) {
        options.push_back(e->option);
    }
    options.push_back(GOptionEntry{});
    GOptionGroup* main = g_option_group_new(m_tool.c_str(), "", "", this, nullptr);
    g_option_group_add_entries(main, options.data());
    g_option_context_set_main_group(m_context, main);
    g_set_prgname(m_tool.c_str());

    const std::string flag = flag_with_value(args);
    if (!flag.empty()) {
        return usage_error(flag + " takes no value", err);
    }

    gchar** argv = g_new0(gchar*, args.size() + 2);
    argv[0] = g_strdup(m_tool.c_str());
    for (size_t i = 0; i < args.size(); ++i) {
        argv[i + 1] = g_strdup(args[i].c_str());
    }
    GError* error = nullptr;
    const bool ok = g_option_context_parse_strv(m_context, &argv, &error);
    positional.clear();
    bool bDashes = false;  // GLib leaves the "--" that ends the options in place
    for (gchar** a = argv + 1; ok && *a != nullptr; ++a) {
        if (!bDashes && std::strcmp(*a, "--") == 0) {
            bDashes = true;
        } else {
            positional.emplace_back(*a);
        }
    }
    g_strfreev(argv);
    if (!ok) {
        std::string text = error->message;
        g_clear_error(&error);
        // GLib starts its own messages with a capital ("Unknown option --x").
        if (!text.empty() && text[0] >= 'A' && text[0] <= 'Z' &&
            (text.size() < 2 || !(text[1] >= 'A' && text[1] <= 'Z'))) {
            text[0] = static_cast<char>(text[0] - 'A' + 'a');
        }
        return usage_error(text, err);
    }
    if (m_bHelp || m_bHelpAll) {
        gchar* help = g_option_context_get_help(m_context, m_bHelp, nullptr);
        std::fputs(help, out);
        g_free(help);
        return 0;
    }
    if (m_bVersion) {
        std::fprintf(out, "%s %s%s%s\n", m_tool.c_str(), KV_VERSION,
                     m_versionDetail.empty() ? "" : ", ", m_versionDetail.c_str());
        return 0;
    }
    return -1;
}

std::vector<std::string> arguments(int argc, char** argv) {
    return std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc);
}

}  // namespace kv_cli
