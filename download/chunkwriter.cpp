#include "download/chunkwriter.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Chunks read ahead of the writer at most: enough to keep both sides busy
// when one of them stalls for a moment.
constexpr int kBuffers = 4;
// How long the GUI thread waits for the writer before it processes events.
constexpr std::chrono::milliseconds kIdleSlice(5);
// Written data is handed to the disk in pieces of this size, rather than all
// of it in the sync after the copy, which would hold the screen for as long as
// the disk needs.
constexpr qint64 kWritebackBytes = 1024 * 1024;

} // namespace

ChunkWriter::ChunkWriter(qint64 chunkSize, Idle idle)
    : m_idle(std::move(idle))
{
    for (int i = 0; i < kBuffers; ++i) {
        m_buffers.emplace_back(new char[static_cast<size_t>(chunkSize)]);
        m_free.push_back(m_buffers.back().get());
    }
    m_thread = std::thread(&ChunkWriter::run, this);
}

ChunkWriter::~ChunkWriter()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        // Whatever is still queued belongs to a copy given up, by a stop most
        // often: only the chunk being written is finished, so that a disk
        // that makes writes wait does not hold the screen any longer.
        m_jobs.clear();
        m_jobs.push_back(Job{Job::Close, {}, nullptr, 0});
        m_quit = true;
    }
    m_queued.notify_one();
    m_thread.join();
}

void ChunkWriter::open(const QByteArray& path)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_jobs.push_back(Job{Job::Open, path, nullptr, 0});
    }
    m_queued.notify_one();
}

char* ChunkWriter::buffer()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    // A buffer handed out but not written (the end of a file was read into
    // it) is still free for the next chunk.
    if (m_current)
        return m_current;
    if (!wait(lock, [this] { return !m_free.empty(); }))
        return nullptr;
    m_current = m_free.back();
    m_free.pop_back();
    return m_current;
}

void ChunkWriter::write(qint64 count)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_jobs.push_back(Job{Job::Write, {}, m_current, count});
        m_current = nullptr;
    }
    m_queued.notify_one();
}

bool ChunkWriter::finish()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_jobs.push_back(Job{Job::Close, {}, nullptr, 0});
    m_queued.notify_one();
    return wait(lock, [this] { return m_jobs.empty() && !m_busy; });
}

bool ChunkWriter::wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& ready)
{
    while (!m_done.wait_for(lock, kIdleSlice, ready)) {
        lock.unlock();
        const bool goOn = m_idle();
        lock.lock();
        if (!goOn)
            return false;
    }
    return true;
}

void ChunkWriter::run()
{
    File file;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_queued.wait(lock, [this] { return !m_jobs.empty() || m_quit; });
        if (m_jobs.empty())
            break;
        const Job job = m_jobs.front();
        m_jobs.pop_front();
        m_busy = true;
        lock.unlock();

        switch (job.kind) {
        case Job::Open:
            file.close();
            file.fd = ::open(job.path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            break;
        case Job::Write:
            file.write(job.data, job.count);
            break;
        case Job::Close:
            file.close();
            break;
        }

        lock.lock();
        if (job.data)
            m_free.push_back(job.data);
        m_busy = false;
        m_done.notify_all();
    }
}

void ChunkWriter::File::write(const char* data, qint64 count)
{
    if (fd < 0)
        return;
    while (count > 0) {
        const ssize_t done = ::write(fd, data, static_cast<size_t>(count));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0) {
            // The rest of this destination is not written: it stays short,
            // which its verification reports.
            close();
            return;
        }
        data += done;
        count -= done;
        written += done;
    }
    if (written - flushed >= kWritebackBytes) {
        sync_file_range(fd, flushed, written - flushed, SYNC_FILE_RANGE_WRITE);
        flushed = written;
    }
}

void ChunkWriter::File::close()
{
    if (fd < 0)
        return;
    if (written > flushed)
        sync_file_range(fd, flushed, written - flushed, SYNC_FILE_RANGE_WRITE);
    ::close(fd);
    fd = -1;
    written = 0;
    flushed = 0;
}
