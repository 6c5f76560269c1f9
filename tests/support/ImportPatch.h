// Replaces a function that a loaded library imports, for the length of a scope. What is tested
// stays the shipped library; only its view of the system changes.
#pragma once

#include <windows.h>

#include <cstring>
#include <stdexcept>
#include <string>

class ImportPatch {
  public:
    template <class Function>
    ImportPatch(HMODULE module, const char* name, Function* replacement)
        : slot_(Find(module, name)), original_(*slot_) {
        Put(reinterpret_cast<ULONG_PTR>(replacement));
    }
    ~ImportPatch() { Put(original_); }
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

  private:
    static ULONG_PTR* Find(HMODULE module, const char* name) {
        auto* base = reinterpret_cast<BYTE*>(module);
        auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
        auto* headers = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
        const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        auto* library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
        for (; library->Name != 0; ++library) {
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
            auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
            for (; names->u1.AddressOfData != 0; ++names, ++slots) {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
                    continue;
                }
                auto* import =
                    reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
                if (strcmp(reinterpret_cast<const char*>(import->Name), name) == 0) {
                    return &slots->u1.Function;
                }
            }
        }
        throw std::runtime_error(std::string("the library does not import ") + name);
    }

    void Put(ULONG_PTR function) {
        DWORD protection = 0;
        VirtualProtect(slot_, sizeof(*slot_), PAGE_READWRITE, &protection);
        *slot_ = function;
        VirtualProtect(slot_, sizeof(*slot_), protection, &protection);
    }

    ULONG_PTR* slot_;
    ULONG_PTR original_;
};

// A function of any signature that fails: it returns 0 and sets the last error.
template <DWORD error, class Result, class... Arguments>
Result WINAPI Refuse(Arguments...) {
    SetLastError(error);
    return Result{};
}

// The function of that kind that can replace another one.
template <DWORD error, class Result, class... Arguments>
auto Refusing(Result(WINAPI*)(Arguments...)) {
    return Refuse<error, Result, Arguments...>;
}
