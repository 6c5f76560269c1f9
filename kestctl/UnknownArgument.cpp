#include "kestctl/UnknownArgument.h"

#include <algorithm>
#include <numeric>

namespace {

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
