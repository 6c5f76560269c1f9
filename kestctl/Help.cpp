// The help texts, in the 80 columns of a console, and messages for unknown arguments.
#include <algorithm>
#include <numeric>
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

// Returns how many characters have to be inserted, deleted or replaced to make one text the other.
size_t Distance(const std::string& one, const std::string& other) {
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (const char c : one) {
        size_t diagonal = row[0]++;
        for (size_t i = 0; i < other.size(); ++i) {
            const size_t replaced = diagonal + (c == other[i] ? 0 : 1);
            diagonal = row[i + 1];
            row[i + 1] = std::min({replaced, row[i] + 1, row[i + 1] + 1});
        }
    }
    return row.back();
}

// The groups and the command that the arguments selected, the program itself first.
std::vector<const CLI::App*> Selected(const CLI::App& app) {
    std::vector<const CLI::App*> groups = {&app};
    while (!groups.back()->get_subcommands().empty()) {
        groups.push_back(groups.back()->get_subcommands().front());
    }
    return groups;
}

// Returns the option that is most similar to a text; empty if none is similar.
std::string SimilarOption(const std::vector<const CLI::App*>& groups, const std::string& text) {
    std::string similar;
    size_t least = std::max<size_t>(1, text.size() / 3) + 1;
    for (const CLI::App* group : groups) {
        for (const CLI::Option* option : group->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                if (const size_t distance = Distance(text, "--" + name); distance < least) {
                    least = distance;
                    similar = "--" + name;
                }
            }
        }
    }
    return similar;
}

}  // namespace

void SetHelp(CLI::App& app) {
    app.formatter(std::make_shared<HelpFormatter>());
}

std::string Examples(const CLI::App& app) {
    std::string text;
    for (const CLI::App* command : app.get_subcommands(nullptr)) {
        const std::string footer = command->get_footer();
        text += Examples(*command);
        if (const size_t line = footer.find('\n'); line != std::string::npos) {
            text += footer.substr(line);
        }
    }
    return text;
}

std::string UnknownArgument(const CLI::App& app) {
    const std::vector<const CLI::App*> groups = Selected(app);
    const std::vector<std::string> rest = app.remaining(true);
    const auto option = std::find_if(rest.begin(), rest.end(),
                                     [](const auto& text) { return text.starts_with("--"); });
    if (option != rest.end()) {
        const std::string name = option->substr(0, option->find('='));
        const std::string similar = SimilarOption(groups, name);
        return "There is no option " + name +
               (similar.empty() ? "" : ". The most similar one is " + similar);
    }
    // CLI11 also reports a missing command where an unknown one was given.
    if (rest.empty() || groups.back()->get_require_subcommand_min() == 0) {
        return {};
    }
    std::string known;
    for (const CLI::App* command : groups.back()->get_subcommands(nullptr)) {
        known += (known.empty() ? "" : ", ") + command->get_name();
    }
    return "There is no command '" + rest.front() + "'. The commands are: " + known;
}
