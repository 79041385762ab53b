#pragma once

#include <QByteArray>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// The writing half of the project copy, on a thread of its own. The GUI thread
// reads the package and processes events; the chunks it has read go to the
// panel's disk meanwhile, on another processor where there is one, together
// with the opening and closing of the destinations and the writeback that
// keeps the sync after the copy short. A disk that makes writes wait, as flash
// does once the system's write buffers are full, no longer holds the screen.
// Destinations are written one after the other, in the order they were opened.
//
// Write errors are not reported: a destination that could not be written is
// found by the verification that follows every copy.
class ChunkWriter
{
public:
    // Called while the GUI thread waits for the writer, every few
    // milliseconds: processes events; false ends the wait (a stop).
    using Idle = std::function<bool()>;

    ChunkWriter(qint64 chunkSize, Idle idle);
    // Finishes the chunk being written, drops the rest of the queue, closes
    // the destination and ends the thread: finish() first to keep everything.
    ~ChunkWriter();
    ChunkWriter(const ChunkWriter&) = delete;
    ChunkWriter& operator=(const ChunkWriter&) = delete;

    // The following writes go to `path`, created or truncated; the destination
    // before it is closed.
    void open(const QByteArray& path);
    // A buffer of chunkSize bytes to read the next chunk into; nullptr when
    // the wait for one was stopped.
    char* buffer();
    // Queues the first `count` bytes of the buffer last returned.
    void write(qint64 count);
    // Waits until everything queued is written and closed; false when the
    // wait was stopped.
    bool finish();

private:
    struct Job
    {
        enum Kind { Open, Write, Close } kind;
        QByteArray path;
        char* data;
        qint64 count;
    };
    // The destination being written, on the writer's thread.
    struct File
    {
        int fd = -1;
        qint64 written = 0;
        qint64 flushed = 0; // handed to the disk's writeback
        void write(const char* data, qint64 count);
        void close();
    };

    void run();
    // Waits under `lock` until `ready` holds, calling m_idle every few
    // milliseconds; false when m_idle returned false.
    bool wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& ready);

    const Idle m_idle;
    std::vector<std::unique_ptr<char[]>> m_buffers;

    std::mutex m_mutex;
    std::condition_variable m_queued; // a job was queued, or the end asked for
    std::condition_variable m_done;   // a job was done
    std::deque<Job> m_jobs;
    std::vector<char*> m_free;
    char* m_current = nullptr;
    bool m_busy = false;
    bool m_quit = false;
    std::thread m_thread;
};
