#ifndef KIV_EVENTMANAGER_EVENTMANAGERDECHUNK_H
#define KIV_EVENTMANAGER_EVENTMANAGERDECHUNK_H

namespace kiv {

// Base of the caller's per-stream object, passed to start_request as the address of a
// kiv_shared_ptr<EventManagerDecChunk> and held by the transfer while it runs. Callers derive
// from it; the layer only keeps it alive and destroys it through this virtual destructor.
class EventManagerDecChunk {
public:
    virtual ~EventManagerDecChunk() {}
};

}  // namespace kiv

#endif
