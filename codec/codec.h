// The forms that instances take outside memory, with their order and hash. Generated exports call these templates,
// one line each, under the names of the operations; nothing here knows a schema.
//
//   walk.h               attributes as far as a variant reaches, arms, list elements, joined names
//   fixed_form.h         values whose binary form is their own bytes
//   part_form.h          enumerations, flag sets and small records in place
//   binary_length.h      len, len_cr
//   binary_writer.h      marshal, marshal_for_clone; the binary form is told there
//   binary_reader.h      unmarshal
//   text_writer.h        print, print_cr
//   xml_writer.h         to_xml, toxml_cr
//   xml_reader.h         from_xml
//   compare.h, hash.h    compare, hash
//   enumeration_codec.h  the same operations for enumerations
//   flag_set_codec.h     and for flag sets
//
// Frames of table records and messages stand in tables/ and messages/; values, tags and frame fields are written
// by the runtime.
#pragma once

#include "codec/binary_length.h"
#include "codec/binary_reader.h"
#include "codec/binary_writer.h"
#include "codec/compare.h"
#include "codec/enumeration_codec.h"
#include "codec/flag_set_codec.h"
#include "codec/hash.h"
#include "codec/text_writer.h"
#include "codec/xml_reader.h"
#include "codec/xml_writer.h"
