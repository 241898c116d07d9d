<?php
// Takes its time over each request (argument 2 in ms, default 300) and logs
// "overlap" when the next request was already waiting by then: a sender
// that doesn't wait for each answer before the next message.
require __DIR__ . '/tracker_lib.php';
tracker_serve(function ($line, $n) {
    usleep(tracker_arg(300) * 1000);
    $read = [STDIN];
    $write = null;
    $except = null;
    if (stream_select($read, $write, $except, 0) > 0)
        tracker_log('overlap');
    return tracker_answer($line);
});
