/*
 * The wire as the model knows it: sizes and fields by class and by record, written down a second time and
 * sharing nothing with the library.
 */
#ifndef TESTS_SIMULATION_CODEC_H
#define TESTS_SIMULATION_CODEC_H

#include "ac_classes.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace simulation {

using bytes = std::vector<std::uint8_t>;
using byte_view = std::span<const std::uint8_t>;

inline constexpr std::uint32_t class_count = ac_classes::rows.size();
inline constexpr std::size_t header_size = 16;
inline constexpr std::size_t defn_size = 616;
inline constexpr std::size_t info_stride = 2360;
inline constexpr std::size_t data_stride = 2676;
inline constexpr std::size_t notify_size = 32;
inline constexpr std::size_t root_size = 8;
inline constexpr std::size_t port_size = 96;
inline constexpr std::size_t vid_size = 4;
inline constexpr std::size_t prot_size = 72;

/* A deliberate mistake of the model, by which the simulation proves that it would find one. */
enum class fault : std::uint8_t {
    none,
    create_without_end,
    root_limit_by_record,
    first_retry_after_5,
    empty_update_with_flags,
    class6_bits_as_they_lie,
    class16_defn_as_class0,
    mstp_begin_once,
    delete_refused_as_told,
    no_down_on_failed_send,
    busy_client_goes,
    hdr_notice_bit_in_host_order,
    class8_word_as_it_lies,
    refused_disconnect_keeps_timer,
    empty_create_keeps_batch,
    taken_over_with_cause,
    class11_info_too_long,
    count_
};

[[nodiscard]] const char *name_of(fault mistake);

[[nodiscard]] std::size_t info_size(std::uint32_t class_id, fault mistake = fault::none);
[[nodiscard]] std::size_t data_size(std::uint32_t class_id); /* with the AC's handle */
[[nodiscard]] bool has_data_layout(std::uint32_t class_id);

/* Host to network order or back, in place. */
void turn_defns(std::uint32_t class_id, std::span<std::uint8_t> defns, fault mistake = fault::none);
void turn_words(std::span<std::uint8_t> words);
void turn_notifies(std::span<std::uint8_t> records);

/* An MSTP record array, by the type of its message. */
void turn_mstp(std::uint32_t msg_type, std::span<std::uint8_t> records);

/* The information messages of these records, as one array of info_size() a record. */
[[nodiscard]] bytes encode_infos(std::uint32_t class_id, byte_view infos, fault mistake = fault::none);

/* Records of AC data off the wire, as the client gets them. */
[[nodiscard]] bytes decode_data(std::uint32_t class_id, byte_view records, std::uint32_t count,
                                fault mistake = fault::none);

[[nodiscard]] std::uint32_t get32(byte_view at); /* network order */
void put32(bytes &to, std::uint32_t value);
[[nodiscard]] bytes header_of(std::uint32_t msg_type, std::uint32_t bulk, std::uint32_t flags);

/* The number that a host reads where these four bytes lie. */
[[nodiscard]] std::uint32_t host32(byte_view at);

} // namespace simulation

#endif
