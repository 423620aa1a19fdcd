#include "imgcore/row_stripes.h"

#include <system_error>
#include <thread>

void runFourWorkers(const std::function<void(int worker)>& body) {
    std::thread workers[4];
    int started = 0;
    std::error_code failure;
    for (; started < 4; ++started) {
        try {
            workers[started] = std::thread(body, started);
        } catch (const std::system_error& e) {
            failure = e.code();
            break;
        }
    }
    for (int k = 0; k < started; ++k) workers[k].join();
    if (started < 4) throw std::system_error(failure, "thread constructor failed");
}

void runOnFourStripes(int rows, const std::function<void(int rowStart, int rowEnd)>& body) {
    runFourWorkers([&](int k) { body(stripeStart(rows, k), stripeEnd(rows, k)); });
}
