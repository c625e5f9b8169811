# The rivals that are libraries. What their compilers generate is theirs, and spared our warnings.
find_package(Protobuf REQUIRED)
find_package(CapnProto REQUIRED)
find_program(CAPNP capnp REQUIRED)
find_program(FLATC flatc REQUIRED) # the library is headers only

set(generated ${CMAKE_CURRENT_BINARY_DIR}/generated)
set(schema ${CMAKE_CURRENT_SOURCE_DIR}/rivals/ac)
file(MAKE_DIRECTORY ${generated})
add_custom_command(
    OUTPUT ${generated}/ac.pb.cc ${generated}/ac.pb.h
    COMMAND protobuf::protoc --proto_path=${CMAKE_CURRENT_SOURCE_DIR}/rivals --cpp_out=${generated} ${schema}.proto
    DEPENDS ${schema}.proto)
add_custom_command(
    OUTPUT ${generated}/ac_generated.h
    COMMAND ${FLATC} --cpp -o ${generated} ${schema}.fbs
    DEPENDS ${schema}.fbs)
add_custom_command(
    OUTPUT ${generated}/ac.capnp.c++ ${generated}/ac.capnp.h
    COMMAND ${CAPNP} compile -oc++:${generated} --src-prefix=${CMAKE_CURRENT_SOURCE_DIR}/rivals ${schema}.capnp
    DEPENDS ${schema}.capnp)
add_library(l2vpn_bench_schemas STATIC
    ${generated}/ac.pb.cc ${generated}/ac.capnp.c++ ${generated}/ac_generated.h)
target_include_directories(l2vpn_bench_schemas SYSTEM PUBLIC ${generated})
target_link_libraries(l2vpn_bench_schemas PUBLIC
    protobuf::libprotobuf CapnProto::capnp Threads::Threads)

target_sources(l2vpn_bench_rivals PRIVATE
    rivals/capnproto.cpp rivals/flatbuffers_structs.cpp rivals/flatbuffers_tables.cpp rivals/protobuf.cpp)
target_compile_definitions(l2vpn_bench_rivals PRIVATE BENCH_ENCODERS)
target_link_libraries(l2vpn_bench_rivals PRIVATE l2vpn_bench_schemas)
