#ifndef KIV_AUDIO_PCMQUEUE_H
#define KIV_AUDIO_PCMQUEUE_H

#include <cstdint>

#include "core/utility/Memory/kiv_shared_ptr.h"

namespace kiv {

// First-in, first-out byte queue for audio, on a ring buffer that grows as bytes are queued.
//
// Cost: queueAudio copies each byte in once and dequeSamples copies it out once (at most two
// memcpy calls each, where the ring wraps); growth doubles the storage, so both are amortised
// O(1) per byte. Storage is never shrunk, except by destroying the queue.
//
// Positions: every byte gets a stream position when it is queued, counting from 0 at creation
// or reset(). The oldest held byte's position is the "logical start"; dequeSamples and the shift
// operations advance it. Positions are ints that wrap after 2^31 bytes; the operations taking a
// position compare it with the logical start by wrapping difference, so they stay correct on
// long streams as long as the position is within 2^30 bytes of the logical start.
//
// Snapshot: snapshot() marks the current content; restore() returns the queue to exactly that
// content (bytes dequeued or shifted since come back, bytes queued since are dropped). While a
// mark is set, the bytes it covers are kept in storage even after they are dequeued; a new
// snapshot(), restore() or reset() ends that.
//
// Not synchronised: callers serialise all access to one queue. No operation blocks. Invalid
// arguments (null buffer with a positive length, negative lengths or offsets) are logged and
// change nothing. There is no loop (replay) mode: mLoopMode is always false and mLoopStart and
// mLoopEnd always null.
class PCMQueue {
public:
    // An empty queue with room for `capacity` bytes before its first growth (none for 0 or less).
    static kiv::Memory::kiv_shared_ptr<PCMQueue> newQueue(int capacity);

    // Copies up to `length` of the oldest bytes into `buffer` without removing them. With `pad`,
    // the rest of the `length` bytes of `buffer` is zero-filled (silence) when fewer are held.
    // Returns the number of queued bytes copied, or -1 for invalid arguments.
    int readSamples(uint8_t* buffer, int length, bool pad);

    // Copies into buffer[offset, offset + length) the held bytes from stream position `logicPos`
    // on, without removing them. With `pad`, the part of that range left unfilled is zero-filled.
    // Returns the number of queued bytes copied (0 when `logicPos` is at or past the newest
    // byte), or -1 for invalid arguments or a position before the logical start (already gone).
    int readSamples(uint8_t* buffer, int offset, int length, int logicPos, bool pad);

    // Appends `length` bytes from `data`. Returns `length` once they are all queued; 0 for a
    // length of 0 (data may then be null); -1, with nothing queued, for invalid arguments, for
    // a queue that would exceed INT_MAX - 1 bytes, or when storage cannot be allocated (logged).
    int queueAudio(const uint8_t* data, int length);

    // Moves up to `length` of the oldest bytes into `buffer`, in order. Returns how many: `length`
    // when at least that many are held, all of them when fewer, 0 when empty; -1 for invalid
    // arguments. With `pad`, the rest of the `length` bytes of `buffer` is zero-filled.
    int dequeSamples(uint8_t* buffer, int length, bool pad);

    // Drops the bytes before stream position `logicPos` (all of them if it is past the newest).
    // Returns how many were dropped; 0 when `logicPos` is at or before the logical start.
    int shiftToLogicPos(int logicPos);

    // Drops up to `length` of the oldest bytes without copying. Returns how many were dropped;
    // -1 for a negative length.
    int shiftSize(int length);

    // True when at least one byte is held.
    bool haveData();

    // Drops every byte and the snapshot mark, and restarts stream positions at 0. Keeps storage.
    void reset();

    // Marks the current content for restore(), replacing an earlier mark.
    void snapshot();

    // Returns the queue to the content marked by snapshot() and clears the mark. Without a mark
    // it does nothing.
    void restore();

    // Bytes held. Read-only for callers.
    int mDataLength;

private:
    friend class kiv::Memory::kiv_shared_ptr<PCMQueue>;

    explicit PCMQueue(int capacity);
    ~PCMQueue();
    PCMQueue(const PCMQueue&) = delete;
    PCMQueue& operator=(const PCMQueue&) = delete;

    int indexOf(const uint8_t* p) const { return static_cast<int>(p - mData); }
    // Ring distance from index `from` forward to index `to`, in [0, capacity).
    int distance(int from, int to) const;
    int readIndex() const;
    // First index of the bytes that must be kept: the mark if one is set, else the read index.
    int keptStartIndex() const;
    // Makes room for `more` bytes after the newest one; false if it cannot.
    bool reserve(int more);
    void copyOut(int from, uint8_t* dst, int length) const;
    int copyOldest(uint8_t* buffer, int length, bool pad, const char* operation);
    void drop(int length);
    static bool checkBuffer(const uint8_t* buffer, int length, const char* operation);

    // Storage of mBufferCapacity bytes, used as a ring that is never completely full (one byte
    // stays free so that equal indices always mean "no bytes" and distances are unambiguous).
    uint8_t* mData;
    int mBufferCapacity;
    bool mLoopMode;
    uint8_t* mLoopStart;
    uint8_t* mLoopEnd;
    // One past the newest byte; the oldest one is mDataLength bytes before it, around the ring.
    uint8_t* mDataEnd;
    // The mark: mDataLength, oldest byte and mDataEnd at snapshot(). m_snapshot_length is -1
    // without a mark.
    int m_snapshot_length;
    uint8_t* m_snapshot_start;
    uint8_t* m_snapshot_end;
    // Stream position of the oldest held byte.
    int mLogicStart;
};

}  // namespace kiv

#endif
