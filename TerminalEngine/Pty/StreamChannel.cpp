// Stream channel on an Asio context run by the channel's own thread. All channel state lives on
// that thread; the public calls post onto it. The thread holds a strong reference to the channel,
// so the channel outlives every handler that runs there, whoever drops the last outside reference.
#include "TerminalEngine/Pty/StreamChannel.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <utility>

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>

namespace TerminalEngine {

namespace {

// A pty master reports the slave side's last close as EIO rather than as a zero-byte read.
bool isEndOfFile(const asio::error_code& error) {
    return error == asio::error::eof || error == asio::error_code(EIO, asio::error::get_system_category());
}

} // namespace

StreamChannel::StreamChannel(Passkey, int fd, std::size_t readBufferSize)
    : keepAlive_(asio::make_work_guard(context_))
    , descriptor_(context_)
    , buffer_(std::max<std::size_t>(readBufferSize, 1)) {
    asio::error_code error;
    descriptor_.assign(fd, error);
    if (!error) descriptor_.non_blocking(true, error);
    if (error) {
        // A descriptor the reactor won't take: the channel is born ended, and still owns the fd.
        descriptor_.close(error);
        ::close(fd);
        closing_ = true;
        ended_ = true;
        keepAlive_.reset();
    }
}

std::shared_ptr<StreamChannel> StreamChannel::open(int fd, std::size_t readBufferSize,
                                                   const char* threadName) {
    auto channel = std::make_shared<StreamChannel>(Passkey{}, fd, readBufferSize);
    if (channel->ended_) return channel;
    channel->thread_ = std::thread([channel, name = std::string(threadName)] {
        pthread_setname_np(pthread_self(), name.c_str());
        channel->context_.run();
    });
    return channel;
}

StreamChannel::~StreamChannel() {
    if (!thread_.joinable()) return;
    // The last reference can be the thread's own, released as it finishes: it can't join itself.
    if (thread_.get_id() == std::this_thread::get_id())
        thread_.detach();
    else
        thread_.join();
}

void StreamChannel::read(std::size_t length, ReadHandler handler) {
    if (ended_ || length == 0) return;
    asio::post(context_, [weak = weak_from_this(), length, handler = std::move(handler)]() mutable {
        auto self = weak.lock();
        if (!self || self->closing_) return;
        self->reads_.push_back({length, std::move(handler)});
        if (!self->readInFlight_) self->startRead();
    });
}

void StreamChannel::write(std::shared_ptr<const std::vector<std::uint8_t>> data, WriteHandler handler) {
    if (ended_ || !data) return;
    asio::post(context_,
               [weak = weak_from_this(), data = std::move(data), handler = std::move(handler)]() mutable {
                   auto self = weak.lock();
                   if (!self || self->stopped_) return;
                   if (self->closing_) {
                       handler(ECANCELED);
                       return;
                   }
                   self->writes_.push_back({std::move(data), std::move(handler)});
                   if (!self->writeInFlight_) self->startWrite();
               });
}

void StreamChannel::close() {
    if (ended_) return;
    asio::post(context_, [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->closing_ = true;
            self->finishIfIdle();
        }
    });
}

void StreamChannel::stop() {
    if (ended_) return;
    asio::post(context_, [weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self || self->stopped_) return;
        self->stopped_ = true;
        self->closing_ = true;
        self->ended_ = true;
        asio::error_code ignored;
        self->descriptor_.close(ignored);
        self->reads_.clear();
        self->writes_.clear();
        self->keepAlive_.reset();
    });
}

void StreamChannel::join() {
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void StreamChannel::startRead() {
    const std::size_t length = std::min(reads_.front().remaining, buffer_.size());
    readInFlight_ = true;
    ++systemReads_;
    descriptor_.async_read_some(
        asio::buffer(buffer_.data(), length),
        [this](const asio::error_code& error, std::size_t count) { readFinished(error, count); });
}

void StreamChannel::readFinished(const asio::error_code& error, std::size_t count) {
    readInFlight_ = false;
    if (stopped_ || error == asio::error::operation_aborted || reads_.empty()) return;
    if (!error && count > 0) {
        const std::span<const std::uint8_t> data(buffer_.data(), count);
        ReadRequest& request = reads_.front();
        request.remaining -= count;
        if (request.remaining > 0) {
            request.handler(false, data, 0);
        } else {
            ReadHandler handler = std::move(request.handler);
            reads_.pop_front();
            handler(true, data, 0);
        }
        // Handlers post rather than call back into the channel, so the queue is as they left it.
        if (stopped_) return;
        if (!reads_.empty())
            startRead();
        else
            finishIfIdle();
        return;
    }
    ReadRequest request = std::move(reads_.front());
    reads_.pop_front();
    if (isEndOfFile(error) || !error)
        request.handler(true, std::span<const std::uint8_t>{}, 0);
    else
        request.handler(true, std::nullopt, error.value());
    end();
}

void StreamChannel::startWrite() {
    writeInFlight_ = true;
    asio::async_write(descriptor_, asio::buffer(*writes_.front().data),
                      [this](const asio::error_code& error, std::size_t) { writeFinished(error); });
}

void StreamChannel::writeFinished(const asio::error_code& error) {
    writeInFlight_ = false;
    if (stopped_ || writes_.empty()) return;
    WriteRequest request = std::move(writes_.front());
    writes_.pop_front();
    request.handler(error ? error.value() : 0);
    if (ended_) {
        failQueuedWrites();
        return;
    }
    if (!writes_.empty())
        startWrite();
    else
        finishIfIdle();
}

void StreamChannel::finishIfIdle() {
    if (closing_ && reads_.empty() && !readInFlight_ && writes_.empty() && !writeInFlight_) end();
}

void StreamChannel::end() {
    if (ended_) return;
    closing_ = true;
    ended_ = true;
    // The clean-up: the descriptor closes here, once and only here. Operations still in flight
    // complete as aborted.
    asio::error_code ignored;
    descriptor_.close(ignored);
    std::deque<ReadRequest> reads = std::move(reads_);
    reads_.clear();
    for (auto& request : reads)
        request.handler(true, std::nullopt, ECANCELED);
    if (!writeInFlight_) failQueuedWrites();
    keepAlive_.reset();
}

void StreamChannel::failQueuedWrites() {
    std::deque<WriteRequest> writes = std::move(writes_);
    writes_.clear();
    for (auto& request : writes)
        request.handler(ECANCELED);
}

} // namespace TerminalEngine
