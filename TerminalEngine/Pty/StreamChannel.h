// A stream channel over a pty master: a serial read/write path on a thread of its own, with read
// requests that complete in parts and a clean-up that closes the descriptor once the channel ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

namespace TerminalEngine {

class StreamChannel : public std::enable_shared_from_this<StreamChannel> {
public:
    // One part of a read request, on the channel's thread. `done` is true on the request's last
    // part: when it has delivered the requested length, or at end of file (empty data). `data` is
    // none when the request ended without data (the channel was closed under it, or failed with
    // `error`). The span is valid only during the call.
    using ReadHandler =
        std::function<void(bool done, std::optional<std::span<const std::uint8_t>> data, int error)>;
    // A write finished: 0, or the errno that ended it. On the channel's thread.
    using WriteHandler = std::function<void(int error)>;

    // Takes ownership of `fd` (made non-blocking, closed when the channel ends) and starts the
    // channel's thread under `threadName`. `readBufferSize` bounds a single system read.
    static std::shared_ptr<StreamChannel> open(int fd, std::size_t readBufferSize, const char* threadName);
    ~StreamChannel();

    StreamChannel(const StreamChannel&) = delete;
    StreamChannel& operator=(const StreamChannel&) = delete;

    // Queues a request for up to `length` bytes. Requests run one after the other in the order
    // given; any byte available is delivered at once (low-water mark of one byte). Thread-safe.
    void read(std::size_t length, ReadHandler handler);

    // Queues a write of the whole of `data`. Writes reach the descriptor whole and in order; a
    // full pty makes the write wait for room, not fail. Thread-safe.
    void write(std::shared_ptr<const std::vector<std::uint8_t>> data, WriteHandler handler);

    // Accepts no new request; the outstanding ones finish, then the channel ends. Thread-safe.
    void close();

    // Ends the channel now: outstanding requests are dropped and their handlers never called.
    // Thread-safe; takes effect on the channel's thread once its current handler has returned.
    void stop();

    // Waits until the channel's thread has finished (after stop(), or once the channel ended on
    // its own). Does nothing on the channel's own thread.
    void join();

    bool ended() const { return ended_.load(); }

    // Number of system-level reads issued so far (diagnostics).
    std::int64_t systemReads() const { return systemReads_.load(); }

private:
    struct ReadRequest {
        std::size_t remaining;
        ReadHandler handler;
    };
    struct WriteRequest {
        std::shared_ptr<const std::vector<std::uint8_t>> data;
        WriteHandler handler;
    };
    struct Passkey {};

public:
    StreamChannel(Passkey, int fd, std::size_t readBufferSize);

private:
    template <typename F>
    void onThread(F&& work);

    void startRead();
    void readFinished(const asio::error_code& error, std::size_t count);
    void startWrite();
    void writeFinished(const asio::error_code& error);
    void finishIfIdle();
    void end();
    void failQueuedWrites();

    asio::io_context context_{1}; // run by exactly one thread
    asio::executor_work_guard<asio::io_context::executor_type> keepAlive_;
    asio::posix::stream_descriptor descriptor_;
    std::vector<std::uint8_t> buffer_;

    // Channel-thread state.
    std::deque<ReadRequest> reads_;
    std::deque<WriteRequest> writes_;
    bool readInFlight_ = false;
    bool writeInFlight_ = false;
    bool closing_ = false;
    bool stopped_ = false;

    std::atomic<bool> ended_{false};
    std::atomic<std::int64_t> systemReads_{0};
    std::thread thread_;
};

} // namespace TerminalEngine
