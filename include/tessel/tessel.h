// Umbrella header: every public interface of the library, for hosts that want one include.
#pragma once

#include "ol/base64.h"
#include "ol/file.h"
#include "ol/ipaddr.h"
#include "tessel/asn1.h"
#include "tessel/assert.h"
#include "tessel/bignum.h"
#include "tessel/blob.h"
#include "tessel/cpu.h"
#include "tessel/ec.h"
#include "tessel/hash.h"
#include "tessel/hmac.h"
#include "tessel/names.h"
#include "tessel/reducer.h"
#include "tessel/rng.h"
#include "tessel/timepoint.h"
