// Umbrella header: every public interface of the library, for hosts that want one include.
#pragma once

#include "ol/base64.h"
#include "ol/file.h"
#include "ol/ipaddr.h"
#include "tessel/assert.h"
#include "tessel/bignum.h"
#include "tessel/blob.h"
#include "tessel/ec.h"
#include "tessel/hash.h"
#include "tessel/hmac.h"
#include "tessel/reducer.h"
#include "tessel/rng.h"
