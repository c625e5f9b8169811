#include "rival.h"

std::vector<std::unique_ptr<rival>> all_rivals()
{
    std::vector<std::unique_ptr<rival>> all;
    for (const auto make : {
             stream_rival,
             growing_rival,
             packed_rival,
#ifdef BENCH_ENCODERS
             protobuf_rival,
             flatbuffers_structs_rival,
             flatbuffers_tables_rival,
             capnproto_rival,
#endif
         })
        all.push_back(make());
    return all;
}
