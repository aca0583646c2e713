// runtime_floor: the least a setvane run can cost. It links the same protocol buffer runtime and
// C++ runtime as setvane, statically and with the same link options, so that the runtime's own
// start-up work (its descriptor of descriptor.proto registered before main, its iostreams and
// locales) is paid; nothing of ours is registered and main does nothing. The distance of a
// setvane read to this program is what our code, schema and libmsgpass cost.
//
// Built a second time as schema_floor, with FLOOR_REGISTERS_SCHEMA and setvane's own allocator:
// the same program with our two schema files registered before main, as setvane registers them.
// Its distance to runtime_floor is what the schema's registration costs, which no code of ours
// decides; setvane's distance to it is what the rest of a read costs (libmsgpass, the exchange
// with the service, the command line and the output).
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstdint>

#ifdef FLOOR_REGISTERS_SCHEMA
#include "Common/protobuf/v3/configservice.pb.h"
#endif

int main(int argc, char** argv) {
#ifdef FLOOR_REGISTERS_SCHEMA
    // Never taken: a reference to the schema's descriptor table keeps its generated unit
    // (and with it common.proto's, which it imports) in the program, and so their registration.
    if (argc > 2000) {
        return static_cast<int>(
            reinterpret_cast<uintptr_t>(&descriptor_table_configservice_2eproto));
    }
#endif
    // Never taken: it only keeps the parts of the runtime that setvane uses (reflection, the
    // generated pool, text rendering) in the program, as setvane's calls keep them.
    if (argc > 1000) {
        const google::protobuf::Descriptor* type =
            google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(argv[0]);
        const google::protobuf::Message* prototype =
            google::protobuf::MessageFactory::generated_factory()->GetPrototype(type);
        return static_cast<int>(prototype->DebugString().size());
    }
    return 0;
}
