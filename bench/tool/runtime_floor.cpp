// runtime_floor: the least a setvane run can cost. It links the same protocol buffer runtime and
// C++ runtime as setvane, statically and with the same link options, so that the runtime's own
// start-up work (its descriptor of descriptor.proto registered before main, its iostreams and
// locales) is paid; nothing of ours is registered and main does nothing. The distance of a
// setvane read to this program is what our code, schema and libmsgpass cost.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

int main(int argc, char** argv) {
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
