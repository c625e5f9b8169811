/*
 * The records that client processes exchange with the library.
 *
 * All fields are in host byte order in memory. Where a comment says "octets" or "opaque" the bytes travel
 * as they lie. What the fields mean is agreed between the owner of the interfaces and the L2VPN process;
 * the library only converts byte order.
 */
#ifndef L2VPN_AC_TYPES_H
#define L2VPN_AC_TYPES_H

#include <l2vpn/l2vpn_ac_compiler.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define L2VPN_ALIGNAS(bytes) alignas(bytes)
#define L2VPN_ALIGNOF(type) alignof(type)
#else
#define L2VPN_ALIGNAS(bytes) _Alignas(bytes)
#define L2VPN_ALIGNOF(type) _Alignof(type)
#endif

#define L2VPN_ASSERT_RECORD(type, size, alignment)                                                           \
    L2VPN_AC_STATIC_ASSERT(sizeof(type) == (size), #type " is " #size " bytes");                             \
    L2VPN_AC_STATIC_ASSERT(L2VPN_ALIGNOF(type) == (alignment), #type " is " #alignment "-aligned")
#define L2VPN_ASSERT_FIELD(type, field, offset)                                                              \
    L2VPN_AC_STATIC_ASSERT(offsetof(type, field) == (offset), #type "." #field " is at " #offset)

/* Names one AC. */
typedef uint32_t ifhtype;

/* The kind of interface owner that an AC belongs to: 0 to 17, without 15. */
typedef uint32_t l2vpn_ac_class_t;

#define L2VPN_AC_CLASS_MAX 18u             /* this and above: no class */
#define L2VPN_AC_CLASS_VALID_MASK 0x37fffu /* bit N set: class N can be used */

/* ------------------------------------------------------------------------------------------------------
 * AC definition: 616 bytes, sent from the caller's memory. Given with a create.
 */

typedef struct l2vpn_ac_defn {
    uint8_t opaque[68];
    uint32_t word;
    uint32_t word2;
    uint32_t word3;
    union {
        uint32_t word;     /* classes 4, 6, 11 and 17 */
        uint16_t half[2];  /* class 2 */
        uint8_t octets[4]; /* all others */
    } by_class;
    union {
        uint16_t half;     /* class 0 */
        uint8_t octets[2]; /* all others */
    } by_class2;
    uint8_t opaque2[522];
    uint32_t word4;
    uint32_t word5;
} l2vpn_ac_defn_t;

L2VPN_ASSERT_RECORD(l2vpn_ac_defn_t, 616, 4);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, opaque, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, word, 68);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, word2, 72);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, word3, 76);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, by_class, 80);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, by_class2, 84);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, opaque2, 86);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, word4, 608);
L2VPN_ASSERT_FIELD(l2vpn_ac_defn_t, word5, 612);

/* ------------------------------------------------------------------------------------------------------
 * AC information: a head of four words and a part by class. Given with a create and with an update; one
 * array element is always 2360 bytes, whatever the class.
 */

/* Classes 0, 1 and 16. */
typedef struct l2vpn_ac_info_half {
    uint8_t octets[2];
    uint16_t half;
} l2vpn_ac_info_half_t;

/* Class 2. */
typedef struct l2vpn_ac_info_halves {
    uint16_t half;
    uint16_t half2;
} l2vpn_ac_info_halves_t;

/* Class 6. The six bit-fields share one byte, which the library rebuilds for the wire. */
typedef struct l2vpn_ac_info_class6 {
    uint16_t half;
    uint8_t octets[2];
    uint32_t word;
    unsigned int bit_a : 1;
    unsigned int bit_b : 1;
    unsigned int bit_c : 1;
    unsigned int bit_d : 1;
    unsigned int bits_e : 2;
    unsigned int bits_f : 2;
    uint8_t octet;
    uint16_t half2;
    uint32_t word2;
    uint32_t word3;
    uint8_t octets2[4];
    L2VPN_ALIGNAS(8) uint64_t quad;
    uint8_t opaque[72];
    L2VPN_ALIGNAS(8) uint64_t quad2;
    uint8_t opaque2[68];
    uint32_t word4;
} l2vpn_ac_info_class6_t;

/* Class 7. */
typedef struct l2vpn_ac_info_class7 {
    uint8_t opaque[8];
    uint32_t word;
    uint8_t opaque2[12];
    uint32_t words[4];
} l2vpn_ac_info_class7_t;

/* Class 8: 2340 bytes that travel as they are. */
typedef struct l2vpn_ac_info_class8 {
    uint8_t opaque[2340];
} l2vpn_ac_info_class8_t;

/* Class 11. */
typedef struct l2vpn_ac_info_class11 {
    uint32_t word;
    uint32_t word2;
} l2vpn_ac_info_class11_t;

/* Classes 3, 4, 5, 10, 12, 13 and 14 have a head only. Classes 9 and 17 have no layout. */
typedef struct l2vpn_ac_info {
    uint32_t words[4];
    union {
        l2vpn_ac_info_half_t class0; /* and 1, and 16 */
        l2vpn_ac_info_halves_t class2;
        l2vpn_ac_info_class6_t class6;
        l2vpn_ac_info_class7_t class7;
        l2vpn_ac_info_class8_t class8;
        l2vpn_ac_info_class11_t class11;
    } by_class;
} l2vpn_ac_info_t;

L2VPN_ASSERT_RECORD(l2vpn_ac_info_half_t, 4, 2);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_half_t, octets, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_half_t, half, 2);
L2VPN_ASSERT_RECORD(l2vpn_ac_info_halves_t, 4, 2);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_halves_t, half, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_halves_t, half2, 2);
L2VPN_ASSERT_RECORD(l2vpn_ac_info_class6_t, 184, 8);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, half, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, octets, 2);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, word, 4);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, octet, 9);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, half2, 10);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, word2, 12);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, word3, 16);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, octets2, 20);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, quad, 24);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, opaque, 32);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, quad2, 104);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, opaque2, 112);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class6_t, word4, 180);
L2VPN_ASSERT_RECORD(l2vpn_ac_info_class7_t, 40, 4);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class7_t, opaque, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class7_t, word, 8);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class7_t, opaque2, 12);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class7_t, words, 24);
L2VPN_ASSERT_RECORD(l2vpn_ac_info_class8_t, 2340, 1);
L2VPN_ASSERT_RECORD(l2vpn_ac_info_class11_t, 8, 4);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class11_t, word, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_class11_t, word2, 4);
L2VPN_ASSERT_RECORD(l2vpn_ac_info_t, 2360, 8);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_t, words, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_info_t, by_class, 16);

/* ------------------------------------------------------------------------------------------------------
 * Provisioned AC data: what prov_cb receives, one record an AC, 2676 bytes whatever the class. Bytes
 * beyond a class's tail are 0. Classes 7, 9 and 17 have no layout.
 */

/* Class 8. */
typedef struct l2vpn_ac_xcid_class8 {
    uint8_t opaque[36];
    uint32_t word;
    uint8_t opaque2[2560];
    uint32_t words[4];
    uint32_t word2;
    uint8_t octets[4];
    uint32_t words2[4];
    uint32_t word3;
    uint32_t word4;
} l2vpn_ac_xcid_class8_t;

typedef struct l2vpn_ac_xcid_data {
    uint32_t words[7];
    union {
        l2vpn_ac_info_half_t class0; /* and 1, and 16 */
        l2vpn_ac_info_halves_t class2;
        l2vpn_ac_xcid_class8_t class8;
        uint8_t class11[39]; /* octets */
    } by_class;
} l2vpn_ac_xcid_data_t;

L2VPN_ASSERT_RECORD(l2vpn_ac_xcid_class8_t, 2648, 4);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, opaque, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, word, 36);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, opaque2, 40);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, words, 2600);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, word2, 2616);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, octets, 2620);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, words2, 2624);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, word3, 2640);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_class8_t, word4, 2644);
L2VPN_ASSERT_RECORD(l2vpn_ac_xcid_data_t, 2676, 4);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_data_t, words, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_xcid_data_t, by_class, 28);

/* The record of a bulk notice. */
typedef struct l2vpn_ac_bulk_notify {
    uint32_t word;
    uint16_t half;
    uint8_t octets[2];
    uint32_t words[4];
    uint8_t opaque[4];
    uint32_t word2;
} l2vpn_ac_bulk_notify_t;

L2VPN_ASSERT_RECORD(l2vpn_ac_bulk_notify_t, 32, 4);
L2VPN_ASSERT_FIELD(l2vpn_ac_bulk_notify_t, word, 0);
L2VPN_ASSERT_FIELD(l2vpn_ac_bulk_notify_t, half, 4);
L2VPN_ASSERT_FIELD(l2vpn_ac_bulk_notify_t, octets, 6);
L2VPN_ASSERT_FIELD(l2vpn_ac_bulk_notify_t, words, 8);
L2VPN_ASSERT_FIELD(l2vpn_ac_bulk_notify_t, opaque, 24);
L2VPN_ASSERT_FIELD(l2vpn_ac_bulk_notify_t, word2, 28);

/* ------------------------------------------------------------------------------------------------------
 * MSTP records: same layout in memory and on the wire.
 */

/* MSTI root information. */
typedef struct l2vpn_msti_root {
    uint32_t word;
    uint16_t half;
    uint8_t octets[2];
} l2vpn_msti_root_t;

L2VPN_ASSERT_RECORD(l2vpn_msti_root_t, 8, 4);
L2VPN_ASSERT_FIELD(l2vpn_msti_root_t, word, 0);
L2VPN_ASSERT_FIELD(l2vpn_msti_root_t, half, 4);
L2VPN_ASSERT_FIELD(l2vpn_msti_root_t, octets, 6);

/* MSTP port state request. */
typedef struct l2vpn_mstp_req {
    uint32_t word;
    uint16_t half;
    uint8_t octets[2];
    uint32_t word2;
    uint32_t word3;
    uint16_t half2;
    uint8_t opaque[70];
    uint32_t word4;
    uint8_t tail[4];
} l2vpn_mstp_req_t;

L2VPN_ASSERT_RECORD(l2vpn_mstp_req_t, 96, 4);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, word, 0);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, half, 4);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, octets, 6);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, word2, 8);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, word3, 12);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, half2, 16);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, opaque, 18);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, word4, 88);
L2VPN_ASSERT_FIELD(l2vpn_mstp_req_t, tail, 92);

/* One entry of an MSTI-to-VLAN map. */
typedef struct l2vpn_msti_vid_map_entry {
    uint16_t half;
    uint16_t half2;
} l2vpn_msti_vid_map_t;

L2VPN_ASSERT_RECORD(l2vpn_msti_vid_map_t, 4, 2);
L2VPN_ASSERT_FIELD(l2vpn_msti_vid_map_t, half, 0);
L2VPN_ASSERT_FIELD(l2vpn_msti_vid_map_t, half2, 2);

/* MSTP protection information. `tail` is not converted, although it has the size of a word. */
typedef struct l2vpn_mstp_prot {
    uint8_t opaque[64];
    uint8_t tail[4];
    uint32_t word;
} l2vpn_mstp_prot_t;

L2VPN_ASSERT_RECORD(l2vpn_mstp_prot_t, 72, 4);
L2VPN_ASSERT_FIELD(l2vpn_mstp_prot_t, opaque, 0);
L2VPN_ASSERT_FIELD(l2vpn_mstp_prot_t, tail, 64);
L2VPN_ASSERT_FIELD(l2vpn_mstp_prot_t, word, 68);

#undef L2VPN_ALIGNAS
#undef L2VPN_ALIGNOF
#undef L2VPN_ASSERT_RECORD
#undef L2VPN_ASSERT_FIELD

#endif
