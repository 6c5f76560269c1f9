// The help texts, in the 80 columns of a console.
#include <sstream>
#include <string_view>

#include "kestctl/Command.h"

namespace {

constexpr size_t kColumns = 79;
constexpr size_t kTexts = 30;  // where descriptions begin
constexpr size_t kIndent = 2;  // of a command's help within that of all commands

// Words, as many in a line as fit; a paragraph's own line ends are blanks.
std::string Wrapped(const std::string& text, size_t width) {
    std::istringstream words(text);
    std::string lines;
    size_t length = 0;
    for (std::string word; words >> word; length += word.size()) {
        if (length > 0 && length + 1 + word.size() > width) {
            lines += '\n';
            length = 0;
        } else if (length > 0) {
            lines += ' ';
            ++length;
        }
        lines += word;
    }
    return lines;
}

class HelpFormatter : public CLI::Formatter {
  public:
    HelpFormatter() { column_width(kTexts); }

    std::string make_description(const CLI::App* app) const override {
        return Wrapped(app->get_description(), kColumns - kIndent) + '\n';
    }

    std::string make_subcommand(const CLI::App* command) const override {
        return Line(command->get_name(), command->get_description());
    }

    std::string make_option(const CLI::Option* option, bool isPositional) const override {
        const std::string name = WithoutFalse(make_option_name(option, isPositional));
        return Line(name + make_option_opts(option), option->get_description());
    }

    // The kind of value in one word. The description or the error has the permitted values and the
    // options that exclude each other.
    std::string make_option_opts(const CLI::Option* option) const override {
        if (option->get_type_size() == 0) {
            return {};
        }
        std::string type = option->get_type_name();
        type = type.substr(0, type.find(':'));
        if (option->get_expected_min() == 0) {
            return " [" + type + "]";  // its default stands for the missing value
        }
        const std::string usual = option->get_default_str();
        return (type.empty()                      ? ""
                : type == "UINT" || type == "INT" ? " NUMBER"
                                                  : ' ' + type) +
               (usual.empty() ? "" : '=' + usual) + (option->get_required() ? " REQUIRED" : "");
    }

  private:
    // Removes the value that the library shows behind the name of a flag that turns another off:
    // users do not type it.
    static std::string WithoutFalse(std::string name) {
        constexpr std::string_view kValue = "{false}";
        for (size_t at = 0; (at = name.find(kValue, at)) != std::string::npos;) {
            name.erase(at, kValue.size());
        }
        return name;
    }

    // A name, and its description in the column for descriptions; below a name that is too long.
    static std::string Line(const std::string& name, const std::string& text) {
        std::string line = "  " + name;
        if (!text.empty()) {
            line += line.size() < kTexts ? std::string(kTexts - line.size(), ' ')
                                         : '\n' + std::string(kTexts, ' ');
        }
        for (const char c : Wrapped(text, kColumns - kIndent - kTexts)) {
            line += c;
            line += c == '\n' ? std::string(kTexts, ' ') : "";
        }
        return line + '\n';
    }
};

}  // namespace

void SetHelp(CLI::App& app) {
    app.formatter(std::make_shared<HelpFormatter>());
}
