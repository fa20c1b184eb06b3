// The log of a unit test: kept instead of written, and the event that tests wait for and act on.
#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

// Lines are kept as long as there is one of these; one at a time.
class LogLines {
  public:
    LogLines();
    ~LogLines();

    // How many lines so far contain part.
    static int Count(const std::string& part);
    // Waits until so many do.
    static void WaitFor(const std::string& part, int count = 1);
    // Has each thread that logs a line with this part do this first.
    static void On(const std::string& part, std::function<void()> action);
};

// Holds the first thread that logs a line with this part until it is opened.
class Gate {
  public:
    explicit Gate(const std::string& part) {
        auto isUsed = std::make_shared<std::atomic<bool>>(false);
        LogLines::On(part, [isUsed, held = mHeld, open = mOpen.get_future().share()] {
            if (isUsed->exchange(true)) return;
            held->set_value();
            open.wait();
        });
    }
    ~Gate() { Open(); }
    void WaitUntilHeld() { mHeld->get_future().wait(); }
    void Open() {
        if (!std::exchange(mIsOpen, true)) mOpen.set_value();
    }

  private:
    std::shared_ptr<std::promise<void>> mHeld = std::make_shared<std::promise<void>>();
    std::promise<void> mOpen;
    bool mIsOpen = false;
};
