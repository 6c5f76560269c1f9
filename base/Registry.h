// Reading the registry: what is missing, or of another type, reads as empty.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "base/Handles.h"

// Null when there is no such key, or it may not be read.
UniqueRegistryKey OpenKey(HKEY parent, const std::wstring& name);

// The names of the keys right below one, which may be null.
std::vector<std::wstring> Subkeys(const UniqueRegistryKey& key);

std::wstring ReadText(HKEY key, LPCWSTR value);
DWORD ReadNumber(HKEY key, LPCWSTR value);
