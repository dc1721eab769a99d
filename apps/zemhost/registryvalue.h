// One value of the registry, as its bytes. Main thread only.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/zemhost/registryplaces.h"

struct RegistryValue {
    DWORD type = REG_NONE;
    std::string bytes;
};

// Nothing: there is none.
std::optional<RegistryValue> ReadRegistryValue(const RegistryPlace& place);

// Whether it is of the type that the server reads there.
bool IsRead(const RegistryPlace& place, const RegistryValue& value);

uint32_t RegistryNumber(const RegistryValue& value);

// The texts of any type of text, as UTF-8. Empty ones only before others.
std::vector<std::string> RegistryTexts(const RegistryValue& value);
