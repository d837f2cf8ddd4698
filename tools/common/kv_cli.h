#pragma once

// The command line of every tool, parsed by GLib's option parser: long and short options,
// "--name=value" and "--name value", "--" before positional arguments, --help (exit 0),
// --version (exit 0), and a bad value or an unknown option named in one line on standard
// error (exit 2).

#include <glib.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv_cli {

// Number parsers for option values: decimal, or hexadecimal after 0x; the whole text must
// be the number. False when it is not one or lies outside [min, max].
bool to_uint(const std::string& text, uint64_t max, uint64_t& value);
bool to_double(const std::string& text, double min, double max, double& value);

class parser {
public:
    // `parameters` follows the tool's name in the usage line ("[options] FILE"); `summary`
    // is the text printed below the options by --help.
    parser(const char* tool, const char* parameters, const char* summary = nullptr);
    ~parser();
    parser(const parser&) = delete;
    parser& operator=(const parser&) = delete;

    // An option without a value: sets `target` to `value`.
    parser& flag(const char* name, char short_name, bool& target, const char* help,
                 bool value = true);
    // An option with a value. `set` takes the text and returns false when it is not a
    // value of the kind `expected` names ("a whole bit rate (38M, 5000k, 38000000)").
    parser& option(const char* name, char short_name, const char* arg, const char* help,
                   const char* expected, std::function<bool(const std::string&)> set);
    // Shorthands of option(): any text, or a whole number in [min, max].
    parser& text(const char* name, char short_name, const char* arg, const char* help,
                 std::string& target);
    template <class T>
    parser& number(const char* name, char short_name, const char* arg, const char* help, T& target,
                   uint64_t min, uint64_t max) {
        const std::string expected =
            "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
        return option(name, short_name, arg, help, keep(expected),
                      [&target, min, max](const std::string& text) {
                          uint64_t v = 0;
                          if (!to_uint(text, max, v) || v < min) {
                              return false;
                          }
                          target = static_cast<T>(v);
                          return true;
                      });
    }
    // Options of a library (GStreamer's --gst-* options), shown with --help-all. The
    // parser takes the group over.
    parser& group(GOptionGroup* group);
    // Text that --version prints after the tool's name and version.
    parser& version_detail(std::string text);

    // Parses `args` (without the program's name). Returns -1 when the tool goes on, with
    // the positional arguments in `positional`; otherwise the exit status once the help,
    // the version or the error has been printed: 0 for --help and --version (on `out`),
    // 2 for a bad option or value ("tool: reason (try --help)" on `err`).
    int parse(const std::vector<std::string>& args, std::vector<std::string>& positional,
              FILE* out = stdout, FILE* err = stderr);

    // "tool: text (try --help)" on `err`, for the checks a tool makes after parsing; 2.
    int usage_error(const std::string& text, FILE* err = stderr) const;

private:
    struct entry;

    std::string flag_with_value(const std::vector<std::string>& args) const;
    static gboolean on_option(const gchar* name, const gchar* value, gpointer data, GError** error);
    const char* keep(const std::string& text);
    // A new option that GLib hands to on_option().
    entry& add(const char* name, char short_name, int flags, const char* help, const char* arg);

    std::string m_tool;
    std::string m_versionDetail;
    GOptionContext* m_context;
    std::vector<std::unique_ptr<entry>> m_entries;
    std::vector<std::unique_ptr<std::string>> m_texts;  // strings the entries point into
    bool m_bHelp = false;
    bool m_bHelpAll = false;
    bool m_bVersion = false;
};

// argv without the program's name, for main().
std::vector<std::string> arguments(int argc, char** argv);

}  // namespace kv_cli
