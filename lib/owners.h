// The owners of comm_cpp.h by the names that the sources use.
#ifndef TARN_LIB_OWNERS_H
#define TARN_LIB_OWNERS_H

#include <tarn_utils_v4/comm_cpp.h>

using Packet = CommPacket;
using Endpoint = CommEndpoint;
using Descriptor = CommDescriptor;

#endif
