#include "admin/ports/MigrationFile.h"

#include <nlohmann/json.hpp>

#include <ctime>

#include "admin/channel/Files.h"
#include "admin/ports/PortFile.h"
#include "admin/ports/PortJson.h"
#include "admin/ports/PortStore.h"
#include "base/CommandFailed.h"
#include "base/Text.h"

namespace {

std::string DefaultName() {
    char text[64];
    const std::time_t now = std::time(nullptr);
    std::strftime(text, sizeof(text), "migration-%Y%m%d-%H%M%S.json", std::localtime(&now));
    return text;
}

// Throws CommandFailed if the port's settings in the file are wrong.
Migration FromJson(const nlohmann::json& document) {
    Migration migration;
    migration.from = Utf8ToWide(document.at("from").get<std::string>());
    migration.to = Utf8ToWide(document.at("to").get<std::string>());
    migration.isThere = document.at("wasThere").get<bool>();
    for (const auto& queue : document.at("queues")) {
        migration.queues.push_back(Utf8ToWide(queue.get<std::string>()));
    }
    const PortTable table = ReadPortTable(document.at("settings").dump());
    std::vector<std::string> problems = table.problems;
    if (problems.empty() && table.rows.size() == 1) {
        Apply(table.rows[0], migration.records, problems);
    }
    if (!problems.empty() || table.rows.size() != 1) {
        throw CommandFailed("the settings of port " + WideToUtf8(migration.to) +
                            " are wrong: " + (problems.empty() ? "none" : Printable(problems[0])));
    }
    return migration;
}

}  // namespace

nlohmann::json ToJson(const Migration& migration) {
    nlohmann::json document = {{"name", WideToUtf8(migration.to)},
                               {"from", WideToUtf8(migration.from)},
                               {"to", WideToUtf8(migration.to)},
                               {"queues", NamesAsJson(migration.queues)},
                               {"remark", migration.remark}};
    if (migration.obstacle.empty()) {
        document["wasThere"] = migration.isThere;
        document["settings"] = ToJson(migration.to, migration.records);
    } else {
        document["error"] = migration.obstacle;
    }
    return document;
}

std::string SaveMigration(std::string file, const std::vector<Migration>& plan,
                          const std::wstring& server) {
    if (file.empty()) {
        file = DefaultName();
    }
    nlohmann::json ports = nlohmann::json::array();
    for (const Migration& migration : plan) {
        if (migration.obstacle.empty()) {
            ports.push_back(ToJson(migration));
        }
    }
    SaveFile(file, JsonText({{"server", WideToUtf8(server)}, {"ports", ports}}), false);
    return file;
}

std::vector<Migration> LoadMigration(const std::string& file, const std::wstring& server) {
    const std::string text = ReadFileOrInput(file);
    try {
        const nlohmann::json document = nlohmann::json::parse(text);
        if (const auto other = document.at("server").get<std::string>();
            !SameName(Utf8ToWide(other), server)) {
            throw CommandFailed("the migration was run " +
                                (other.empty() ? "without --server" : "with --server " + other) +
                                ". Undo it in the same way");
        }
        std::vector<Migration> plan;
        for (const auto& port : document.at("ports")) {
            plan.push_back(FromJson(port));
        }
        return plan;
    } catch (const nlohmann::json::exception&) {
        throw CommandFailed(SourceName(file) + " is not a file that `port migrate` wrote");
    } catch (const CommandFailed& failed) {
        throw CommandFailed(SourceName(file) + ": " + failed.what());
    }
}
