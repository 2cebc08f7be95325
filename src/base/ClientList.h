// Client lists handed to callers (GetAll, GetList): one row of 128 characters per address text,
// allocated through the BaseLib companion; the caller owns them from then on and releases them
// with BaseLib_OperatorMemory_Free and the same count.
#pragma once

#include <cstdio>

#include "Ombrelt_BaseLib.h"

namespace netcore {

constexpr int kClientListRow = 128;

// Fills *pppszList from the keys of a table keyed by address text, in the table's order.
// False when the rows could not be allocated.
template <typename Map>
bool HandOutAddressList(const Map& stl_Map, char*** pppszList) {
    if (!BaseLib_OperatorMemory_Malloc(reinterpret_cast<void***>(pppszList), static_cast<int>(stl_Map.size()),
                                       kClientListRow)) {
        return false;
    }
    int i = 0;
    for (const auto& st_Pair : stl_Map) {
        snprintf((*pppszList)[i++], kClientListRow, "%.*s", static_cast<int>(st_Pair.first.size()),
                 st_Pair.first.data());
    }
    return true;
}

}  // namespace netcore
