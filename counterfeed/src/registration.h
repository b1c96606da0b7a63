// How the library gets in touch with the tracing service. The SDK's header is not needed here: it takes long
// to compile.
#pragma once

namespace qel::vexa::counterfeed {

// Has the SDK connect to the system's tracing service, in a thread of its own that keeps trying. Once in a
// process, before anything is registered; from any thread.
void connect_to_tracing_service();

// Detects the GPU and offers the data source, with a description of every counter of that GPU, to the tracing
// service. False when the GPU can't be identified. True otherwise, deliberately without a look at whether the
// SDK took it.
bool register_vexa_gpu_data_source();

}  // namespace qel::vexa::counterfeed
