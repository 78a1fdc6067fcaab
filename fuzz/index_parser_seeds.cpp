// index_parser_seeds.cpp - small indices of both layouts. The GOP table begins right behind the
// base table, so that most changed bytes hit something that is read.
#include "index_builder.h"
#include "seeds.h"

namespace {

using plexa_test::IndexBuilder;

IndexBuilder small() { return IndexBuilder().gop_start(GST_INDEX_BASE_TABLE_SIZE); }

void began_late(pvr_base_table_s &base) {
  base.start_time_code = 1000;
  base.start_packet_count = 50;
}

// Times and packets fall from record to record.
IndexBuilder backwards() {
  IndexBuilder index = small();
  for (guint32 k = 40; k > 0; --k) {
    pvr_gop_info_s gop{};
    gop.time_code = k * 500;
    gop.packet_count = k * 1000;
    gop.pts = k;
    gop.index_of_channel = static_cast<guint16>(k);
    index.gop(gop);
  }
  return index;
}

}  // namespace

std::vector<plexa_fuzz::Bytes> plexa_fuzz::seeds() {
  return {
      small().bytes(),
      small().gops(1, 500, 1000).bytes(),
      small().gops(3, 500, 1000).legacy().bytes(),
      small().base(began_late).gops(100, 500, 1000).bytes(),
      small().base(began_late).legacy().gops(100, 500, 1000).bytes(),
      small().base([](auto &base) { base.end_time_code = 5000; }).gops(10, 500, 1000).bytes(),
      backwards().bytes(),
  };
}
