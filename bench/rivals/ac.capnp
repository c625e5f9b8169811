@0xd3a1c6f0b2948e57;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench_capnproto");

struct Class6 {
  half @0 :UInt16;
  octets @1 :UInt16;
  word @2 :UInt32;
  bits @3 :UInt8;
  octet @4 :UInt8;
  half2 @5 :UInt16;
  word2 @6 :UInt32;
  word3 @7 :UInt32;
  octets2 @8 :UInt32;
  quad @9 :UInt64;
  opaque @10 :Data;
  quad2 @11 :UInt64;
  opaque2 @12 :Data;
  word4 @13 :UInt32;
}

struct Ac {
  handle @0 :UInt32;
  word @1 :UInt32;
  word2 @2 :UInt32;
  word3 @3 :UInt32;
  word4 @4 :UInt32;
  word5 @5 :UInt32;
  octets @6 :UInt32;
  half @7 :UInt16;
  opaque @8 :Data;
  opaque2 @9 :Data;
  head @10 :UInt32;
  head2 @11 :UInt32;
  head3 @12 :UInt32;
  head4 @13 :UInt32;
  byClass :union {
    class0 :group {
      octets @14 :UInt16;
      half @15 :UInt16;
    }
    class7 :group {
      opaque @16 :UInt64;
      word @17 :UInt32;
      opaque2 @18 :Data;
      tail @19 :UInt32;
      tail2 @20 :UInt32;
      tail3 @21 :UInt32;
      tail4 @22 :UInt32;
    }
    class8 @23 :Data;
    class6 @24 :Class6; # of its own: as a group it would make those of other classes larger
  }
}

struct Create {
  flags @0 :UInt32;
  acs @1 :List(Ac);
}

struct Provisioned {
  handle @0 :UInt32;
  word @1 :UInt32;
  word2 @2 :UInt32;
  word3 @3 :UInt32;
  word4 @4 :UInt32;
  word5 @5 :UInt32;
  word6 @6 :UInt32;
  word7 @7 :UInt32;
  byClass :union {
    class0 :group {
      octets @8 :UInt16;
      half @9 :UInt16;
    }
    class8 :group {
      opaque @10 :Data;
      word @11 :UInt32;
      opaque2 @12 :Data;
      words @13 :List(UInt32);
      word2 @14 :UInt32;
      octets @15 :UInt32;
      words2 @16 :List(UInt32);
      word3 @17 :UInt32;
      word4 @18 :UInt32;
    }
  }
}

struct Provision {
  flags @0 :UInt32;
  acs @1 :List(Provisioned);
}
