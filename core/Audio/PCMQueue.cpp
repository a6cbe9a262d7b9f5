#include "core/Audio/PCMQueue.h"

#include <climits>
#include <cstring>
#include <new>

#include "core/utility/kiv_log.h"

namespace kiv {

using kiv::Memory::kiv_shared_ptr;

namespace {

// Storage never starts smaller than this once bytes arrive: a 100 ms frame of 16 kHz 16-bit mono
// audio is 3,200 bytes, so the first frame does not grow the ring twice.
const int kMinCapacity = 4096;

// Positions wrap like unsigned numbers; the conversions back to int are modular on every
// compiler the library supports.
int positionAdd(int position, int delta) {
    return static_cast<int>(static_cast<unsigned>(position) + static_cast<unsigned>(delta));
}

int positionDiff(int to, int from) {
    return static_cast<int>(static_cast<unsigned>(to) - static_cast<unsigned>(from));
}

}  // namespace

kiv_shared_ptr<PCMQueue> PCMQueue::newQueue(int capacity) {
    return kiv_shared_ptr<PCMQueue>::adoptNew(new PCMQueue(capacity));
}

PCMQueue::PCMQueue(int capacity)
    : mDataLength(0),
      mData(nullptr),
      mBufferCapacity(0),
      mLoopMode(false),
      mLoopStart(nullptr),
      mLoopEnd(nullptr),
      mDataEnd(nullptr),
      m_snapshot_length(-1),
      m_snapshot_start(nullptr),
      m_snapshot_end(nullptr),
      mLogicStart(0) {
    if (capacity > 0) {
        int slots = capacity < INT_MAX ? capacity + 1 : INT_MAX;
        mData = new (std::nothrow) uint8_t[slots];
        if (mData) {
            mBufferCapacity = slots;
        } else {
            KIV_LOG(2, "[ERROR]-[%s][%s:53][PCMQueue::PCMQueue] this=%p cannot allocate %d bytes\n",
                    static_cast<void*>(this), slots);
        }
        mDataEnd = mData;
    }
}

PCMQueue::~PCMQueue() {
    delete[] mData;
}

int PCMQueue::distance(int from, int to) const {
    int d = to - from;
    return d < 0 ? d + mBufferCapacity : d;
}

int PCMQueue::readIndex() const {
    int index = indexOf(mDataEnd) - mDataLength;
    return index < 0 ? index + mBufferCapacity : index;
}

int PCMQueue::keptStartIndex() const {
    return m_snapshot_length >= 0 ? indexOf(m_snapshot_start) : readIndex();
}

bool PCMQueue::reserve(int more) {
    int kept = distance(keptStartIndex(), indexOf(mDataEnd));
    if (more > INT_MAX - 1 - kept) {
        return false;
    }
    int needed = kept + more + 1;
    if (needed <= mBufferCapacity) {
        return true;
    }
    int capacity = mBufferCapacity > INT_MAX / 2 ? INT_MAX : mBufferCapacity * 2;
    if (capacity < needed) {
        capacity = needed;
    }
    if (capacity < kMinCapacity) {
        capacity = kMinCapacity;
    }
    uint8_t* storage = new (std::nothrow) uint8_t[capacity];
    if (!storage) {
        return false;
    }
    // Move the kept bytes to the front, so that the ring starts unwrapped. The read index follows
    // from mDataEnd and mDataLength, so only the mark needs rebasing.
    int keptStart = keptStartIndex();
    int markEndOffset = m_snapshot_length >= 0 ? distance(keptStart, indexOf(m_snapshot_end)) : 0;
    if (kept > 0) {
        copyOut(keptStart, storage, kept);
    }
    delete[] mData;
    mData = storage;
    mBufferCapacity = capacity;
    mDataEnd = mData + kept;
    if (m_snapshot_length >= 0) {
        m_snapshot_start = mData;
        m_snapshot_end = mData + markEndOffset;
    }
    return true;
}

void PCMQueue::copyOut(int from, uint8_t* dst, int length) const {
    int first = mBufferCapacity - from;
    if (first > length) {
        first = length;
    }
    memcpy(dst, mData + from, static_cast<size_t>(first));
    if (length > first) {
        memcpy(dst + first, mData, static_cast<size_t>(length - first));
    }
}

void PCMQueue::drop(int length) {
    mDataLength -= length;
    mLogicStart = positionAdd(mLogicStart, length);
    if (mDataLength == 0 && m_snapshot_length < 0) {
        // Restart at the front, so that the next bytes are not split around the end.
        mDataEnd = mData;
    }
}

bool PCMQueue::checkBuffer(const uint8_t* buffer, int length, const char* operation) {
    if (length < 0 || (length > 0 && !buffer)) {
        KIV_LOG(2, "[ERROR]-[%s][%s:138][PCMQueue::%s] invalid buffer %p, length %d\n", operation,
                static_cast<const void*>(buffer), length);
        return false;
    }
    return true;
}

int PCMQueue::queueAudio(const uint8_t* data, int length) {
    if (length == 0) {
        return 0;
    }
    if (!checkBuffer(data, length, "queueAudio")) {
        return -1;
    }
    if (!reserve(length)) {
        KIV_LOG(2, "[ERROR]-[%s][%s:153][PCMQueue::queueAudio] this=%p cannot hold %d more bytes\n",
                static_cast<void*>(this), length);
        return -1;
    }
    int write = indexOf(mDataEnd);
    int first = mBufferCapacity - write;
    if (first > length) {
        first = length;
    }
    memcpy(mData + write, data, static_cast<size_t>(first));
    if (length > first) {
        memcpy(mData, data + first, static_cast<size_t>(length - first));
    }
    write += length;
    if (write >= mBufferCapacity) {
        write -= mBufferCapacity;
    }
    mDataEnd = mData + write;
    mDataLength += length;
    return length;
}

int PCMQueue::readSamples(uint8_t* buffer, int length, bool pad) {
    return copyOldest(buffer, length, pad, "readSamples");
}

int PCMQueue::copyOldest(uint8_t* buffer, int length, bool pad, const char* operation) {
    if (!checkBuffer(buffer, length, operation)) {
        return -1;
    }
    int n = length < mDataLength ? length : mDataLength;
    if (n > 0) {
        copyOut(readIndex(), buffer, n);
    }
    if (pad && length > n) {
        memset(buffer + n, 0, static_cast<size_t>(length - n));
    }
    return n;
}

int PCMQueue::readSamples(uint8_t* buffer, int offset, int length, int logicPos, bool pad) {
    if (offset < 0 || length > INT_MAX - offset) {
        KIV_LOG(2, "[ERROR]-[%s][%s:195][PCMQueue::readSamples] this=%p invalid offset %d\n",
                static_cast<void*>(this), offset);
        return -1;
    }
    if (!checkBuffer(buffer, length, "readSamples")) {
        return -1;
    }
    int skip = positionDiff(logicPos, mLogicStart);
    if (skip < 0) {
        return -1;
    }
    int available = skip < mDataLength ? mDataLength - skip : 0;
    int n = length < available ? length : available;
    if (n > 0) {
        int from = readIndex() + skip;
        if (from >= mBufferCapacity) {
            from -= mBufferCapacity;
        }
        copyOut(from, buffer + offset, n);
    }
    if (pad && length > n) {
        memset(buffer + offset + n, 0, static_cast<size_t>(length - n));
    }
    return n;
}

int PCMQueue::dequeSamples(uint8_t* buffer, int length, bool pad) {
    int n = copyOldest(buffer, length, pad, "dequeSamples");
    if (n > 0) {
        drop(n);
    }
    return n;
}

int PCMQueue::shiftToLogicPos(int logicPos) {
    int ahead = positionDiff(logicPos, mLogicStart);
    if (ahead <= 0) {
        return 0;
    }
    int n = ahead < mDataLength ? ahead : mDataLength;
    drop(n);
    return n;
}

int PCMQueue::shiftSize(int length) {
    if (length < 0) {
        KIV_LOG(2, "[ERROR]-[%s][%s:241][PCMQueue::shiftSize] this=%p negative length %d\n",
                static_cast<void*>(this), length);
        return -1;
    }
    int n = length < mDataLength ? length : mDataLength;
    drop(n);
    return n;
}

bool PCMQueue::haveData() {
    return mDataLength > 0;
}

void PCMQueue::reset() {
    mDataLength = 0;
    mDataEnd = mData;
    mLogicStart = 0;
    m_snapshot_length = -1;
    m_snapshot_start = nullptr;
    m_snapshot_end = nullptr;
}

void PCMQueue::snapshot() {
    m_snapshot_length = mDataLength;
    m_snapshot_start = mData + readIndex();
    m_snapshot_end = mDataEnd;
}

void PCMQueue::restore() {
    if (m_snapshot_length < 0) {
        return;
    }
    // The bytes removed since the mark lie between it and the read index: the mark kept them.
    int removed = distance(indexOf(m_snapshot_start), readIndex());
    mLogicStart = positionAdd(mLogicStart, -removed);
    mDataEnd = m_snapshot_end;
    mDataLength = m_snapshot_length;
    m_snapshot_length = -1;
    m_snapshot_start = nullptr;
    m_snapshot_end = nullptr;
}

}  // namespace kiv
