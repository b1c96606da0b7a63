// For builds inside the platform tree alone, whose tracing SDK has no single header: takes that header's
// place.
#pragma once

#include <perfetto/protozero/proto_decoder.h>
#include <perfetto/protozero/scattered_heap_buffer.h>
#include <perfetto/tracing.h>
#include <protos/perfetto/common/builtin_clock.pbzero.h>
#include <protos/perfetto/common/data_source_descriptor.gen.h>
#include <protos/perfetto/common/gpu_counter_descriptor.pbzero.h>
#include <protos/perfetto/config/data_source_config.gen.h>
#include <protos/perfetto/config/gpu/gpu_counter_config.pbzero.h>
#include <protos/perfetto/config/test_config.gen.h>
#include <protos/perfetto/trace/gpu/gpu_counter_event.pbzero.h>
#include <protos/perfetto/trace/trace_packet.pbzero.h>
