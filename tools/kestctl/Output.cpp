#include "tools/kestctl/Command.h"

#include <windows.h>

#include <algorithm>
#include <iostream>

namespace {

// Code points, which is what a column is wide for the names that ports and printers have.
size_t Width(const std::string& text) {
    return static_cast<size_t>(std::count_if(
        text.begin(), text.end(), [](unsigned char byte) { return (byte & 0xC0) != 0x80; }));
}

void PrintRow(const std::vector<std::string>& row, const std::vector<size_t>& widths) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        line += row[i];
        line.append(widths[i] - Width(row[i]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << '\n';
}

}  // namespace

void AddJsonFlag(CLI::App& command, bool& wanted) {
    command.add_flag("--json", wanted, "Print JSON instead of text");
}

void PrintJson(const nlohmann::json& document) {
    std::cout << document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void PrintTable(const std::vector<std::string>& heading,
                const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths(heading.size());
    const auto widen = [&widths](const std::vector<std::string>& row) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    };
    widen(heading);
    std::for_each(rows.begin(), rows.end(), widen);
    PrintRow(heading, widths);
    for (const auto& row : rows) {
        PrintRow(row, widths);
    }
}

void AddExample(CLI::App& command, const std::string& line) {
    command.footer("Example:\n  kestctl " + line);
}

CLI::Validator NotEmpty() {
    return CLI::Validator(
        [](std::string& text) { return text.empty() ? "must not be empty" : std::string(); }, "");
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

bool OutputIsTerminal() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != FALSE;
}
