// All headers of the SDK.
//
// Thread rule: each header states its own.
#pragma once

#include "zumod/camera_channel.h"
#include "zumod/channel_stream.h"
#include "zumod/client_camera_plugin.h"
#include "zumod/codec.h"
#include "zumod/codec_decode.h"
#include "zumod/create_policy.h"
#include "zumod/descriptor.h"
#include "zumod/enc_args.h"
#include "zumod/mod_data.h"
#include "zumod/mod_interface.h"
#include "zumod/policies.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"
#include "zumod/runtime.h"
#include "zumod/values.h"
