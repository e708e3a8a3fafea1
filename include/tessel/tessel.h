// Umbrella header: every public interface of the library, for hosts that want one include.
#pragma once

#include "ol/base64.h"
#include "ol/file.h"
#include "ol/ipaddr.h"
#include "tessel/assert.h"
#include "tessel/block.h"
#include "tessel/cbc.h"
#include "tessel/cipher.h"
#include "tessel/cmac.h"
#include "tessel/factory.h"
#include "tessel/gcm.h"
#include "tessel/hash.h"
#include "tessel/hmac.h"
#include "tessel/mschapv2.h"
#include "tessel/rng.h"
