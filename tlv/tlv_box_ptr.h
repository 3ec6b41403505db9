/*
 * Owner of a box.
 */
#pragma once

#include <memory>

#include "tlv/tlv_box.h"

struct CDestroyBox {
    void operator()(tlv_box *i_pBox) const { tlv_box_destroy(i_pBox); }
};
using CBoxPtr = std::unique_ptr<tlv_box, CDestroyBox>;
