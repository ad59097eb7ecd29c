# An object in Cap'n Proto. A fingerprint is four words, which cost less than a pointer to 32 bytes.
@0xbd1f0c8a4e6d7a31;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::capn");

struct Segment {
  fingerprint0 @0 :UInt64;
  fingerprint1 @1 :UInt64;
  fingerprint2 @2 :UInt64;
  fingerprint3 @3 :UInt64;
  offset @4 :UInt64;
  dcid @5 :UInt64;
  size @6 :UInt32;
}

struct Object {
  cid @0 :UInt64;
  size @1 :UInt64;
  ssize @2 :UInt64;
  segments @3 :List(Segment);
}
