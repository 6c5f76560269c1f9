// The help texts, in the 80 columns of a console.
#include <sstream>

#include "tools/kestctl/Command.h"

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
        // A flag that can be turned off has a name for that, with a value that nobody types.
        const std::string name =
            CLI::detail::find_and_replace(make_option_name(option, isPositional), "{false}", "");
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
    static std::string Line(const std::string& name, const std::string& text) {
        std::ostringstream out;
        CLI::detail::format_help(out, name, Wrapped(text, kColumns - kIndent - kTexts), kTexts);
        return out.str();
    }
};

}  // namespace

void SetHelp(CLI::App& app) {
    app.formatter(std::make_shared<HelpFormatter>());
}
