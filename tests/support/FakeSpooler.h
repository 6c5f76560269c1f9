// A print spooler for tests: loads the shipped kestmon.dll, gives it registry callbacks over a key
// of the test's own, and stands in for the print API. It writes down every call that the monitor
// makes, in order, and can be told to fail any of them.
#pragma once

#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tests/support/ImportPatch.h"
#include "admin/channel/MonitorRegistry.h"

class FakeSpooler : public MonitorRegistry {
  public:
    FakeSpooler();
    ~FakeSpooler() override;
    FakeSpooler(const FakeSpooler&) = delete;
    FakeSpooler& operator=(const FakeSpooler&) = delete;

    // Calls InitializePrintMonitor2; false when it returned null.
    bool Start();
    void Stop();

    MONITOR2* operator->() const { return table; }

    // The registry below the monitor's key.
    void SetPortKey(const std::wstring& port) const;
    void SetText(const std::wstring& port, const wchar_t* value, const std::wstring& text) const;
    void SetNumber(const std::wstring& port, const wchar_t* value, DWORD number) const;
    void SetBytes(const std::wstring& port, const wchar_t* value, DWORD type,
                  const std::vector<BYTE>& bytes) const;
    std::wstring Text(const std::wstring& port, const wchar_t* value) const;  // L"-": none
    int Number(const std::wstring& port, const wchar_t* value) const;         // -1: none
    bool HasPortKey(const std::wstring& port) const;

    // A configured port at an address on loopback, for jobs.
    void ConfigurePort(const std::wstring& port, DWORD protocol, WORD tcpPort,
                       bool doubleSpool = false, const wchar_t* address = L"127.0.0.1") const;

    HANDLE Open(const std::wstring& port) const;  // null when OpenPort fails
    HANDLE OpenXcv(ACCESS_MASK access = SERVER_ACCESS_ADMINISTER) const;
    DWORD Xcv(HANDLE xcv, LPCWSTR command, std::wstring name) const;
    // The error that AddPortEx refuses with, or 0.
    DWORD AddPort(LPCWSTR name, DWORD level = 1, LPWSTR server = nullptr) const;
    // A port as ConfigurePort makes it, added and opened.
    HANDLE OpenNew(const std::wstring& port, DWORD protocol, WORD tcpPort,
                   bool doubleSpool = false) const;

    // The calls of a job.
    BOOL Start(HANDLE port, const wchar_t* printer = L"Office", DWORD job = 42) const;
    BOOL Write(HANDLE port, std::string data, DWORD& written) const;
    bool WriteAll(HANDLE port, std::string data) const;

    // What was called since the last TakeCalls, one text a call, such as "open Ports 20006".
    std::vector<std::string> TakeCalls();
    std::vector<std::string> TakeJobCalls();  // those on printers and their jobs
    void Record(const std::string& call);

    HMODULE dll = nullptr;
    MONITOR2* table = nullptr;
    HANDLE monitor = nullptr;
    MONITORINIT init = {};

    std::map<std::string, LONG> failures;  // first words of a call -> its error
    // Is told each call instead, on the thread that makes it, and gives the error that it fails
    // with: for what goes on for hours.
    std::function<LONG(const std::string&)> listener;
    std::set<std::wstring> printers = {L"Office"};        // what OpenPrinterW knows
    std::vector<std::wstring> spoolerPorts = {L"LPT1:"};  // what EnumPortsW lists
    DWORD enumPortsError = 0;                             // how EnumPortsW fails, if it does
    bool hasSpoolerLibrary = true;

  private:
    std::vector<std::unique_ptr<ImportPatch>> patches_;
    std::wstring rootPath_;
    HKEY root_ = nullptr;
    std::mutex mutex_;
    std::vector<std::string> calls_;

    LONG CreateKey(HKEY key, LPCWSTR name, DWORD options, REGSAM access,
                   SECURITY_ATTRIBUTES* security, HKEY* result, DWORD* disposition) override;
    LONG OpenKey(HKEY key, LPCWSTR name, REGSAM access, HKEY* result) override;
    LONG CloseKey(HKEY key) override;
    LONG DeleteKey(HKEY key, LPCWSTR name) override;
    LONG EnumKey(HKEY key, DWORD index, LPWSTR name, DWORD* length, FILETIME* written) override;
    LONG QueryInfoKey(HKEY key, DWORD* subkeys, DWORD* longestSubkey, DWORD* values,
                      DWORD* longestValueName, DWORD* longestData, DWORD* security,
                      FILETIME* written) override;
    LONG SetValue(HKEY key, LPCWSTR name, DWORD type, const BYTE* data, DWORD size) override;
    LONG QueryValue(HKEY key, LPCWSTR name, DWORD* type, BYTE* data, DWORD* size) override;
    LONG Called(const std::string& call);
};
