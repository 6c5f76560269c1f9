// SLPConf.xml as administration sees it: what it says, what is wrong with it, and in which line.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

// The elements of the file, in the order in which they are written.
enum SearchElement : size_t {
    kVersion,
    kServiceName,
    kGroup,
    kIpAddrKey,
    kIpAddr2Key,
    kMacAddrKey,
    kHostNameKey,
    kDeviceIdKey,
    kModelKey,
    kDescriptionKey,
    kSearchElements
};

// Their values (UTF-8), as they stand in the file; what it does not have is empty.
using SearchSettings = std::array<std::string, kSearchElements>;

// An element's name in the file: "ip_addr_key".
const char* NameOf(SearchElement element);

// Something to say about a line of the file.
struct SearchFinding {
    size_t line;   // counted from 1
    bool problem;  // false for what may well be meant so
    std::string text;
};

struct SearchFile {
    bool wellFormed = false;  // otherwise the search reads nothing of it
    SearchSettings values;
    std::vector<SearchFinding> findings;  // by line
};

// Reads and checks a file. Throws CommandFailed when it cannot be read.
SearchFile ReadSearchFile(const std::wstring& path);

// The same of a file's content, but for what only Windows' XML parser notices.
SearchFile CheckSearchText(const std::string& xml);

// Why an attribute's tag cannot be named in the file; empty when it can.
std::string TagProblem(const std::string& tag);

// The multicast group of a version of SLP, "1" or "2".
const char* GroupOf(const std::string& version);

// The file that says just this.
std::string ToXml(const SearchSettings& settings);

// A new version of a file, written beside it as PATH.new. The search can read it from there before
// it replaces the file. The destructor deletes it unless it was installed.
class NewSearchFile {
  public:
    // Throws CommandFailed.
    NewSearchFile(std::wstring path, const std::string& xml);
    ~NewSearchFile();
    NewSearchFile(const NewSearchFile&) = delete;
    NewSearchFile& operator=(const NewSearchFile&) = delete;

    const std::wstring& Path() const { return fresh_; }

    // Replaces the file, as a whole or not at all. Returns the path under which the old version is
    // kept: PATH.old, PATH.old2 and so on, one more than the highest number there is; empty if
    // there was no file. Throws CommandFailed, with nothing changed.
    std::wstring Install();

  private:
    const std::wstring path_;
    const std::wstring fresh_;
};

// Returns the path of a file's previous version. Throws CommandFailed if there is none.
std::wstring PreviousFile(const std::wstring& path);

// Exchanges a file with its previous version, the kept one with the highest number, so that a
// second call undoes the first. Returns the path of the kept file. Throws CommandFailed, with
// nothing changed, also if there is no previous version.
std::wstring RestorePreviousFile(const std::wstring& path);
