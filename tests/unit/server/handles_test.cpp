// Events of the loop for which there is no memory.
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/loop/handles.h>

using namespace velia::server;
using testing::HasSubstr;

// Nobody else would ask for what was to be done then.
TEST(Timer, WhatThereWasNoMemoryForComesAgainAndIsTold) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    int calls = 0;
    testing::internal::CaptureStderr();
    {
        TimerHandle timer(&loop, [&] {
            if (++calls == 1)
                throw std::bad_alloc();
        });
        timer.start(1);
        uv_run(&loop, UV_RUN_DEFAULT);
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("There is no memory for what has come."));
    EXPECT_EQ(calls, 2);
    uv_run(&loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&loop), 0);
}
