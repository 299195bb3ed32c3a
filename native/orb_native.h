// Inside of the packetisers: the functions that the init calls choose from.
#ifndef KESTREL_NATIVE_ORB_NATIVE_H
#define KESTREL_NATIVE_ORB_NATIVE_H

#include "kestrel/native.h"

namespace kestrel {

tel_packetiser tel_amr_packet;
orb_packetiser orb_amr_packet;

}  // namespace kestrel

#endif
