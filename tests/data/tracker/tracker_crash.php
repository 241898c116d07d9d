<?php
// Dies on the k-th request of each process (argument 2, default 3) without
// logging or answering it: the sender must restart it and send again.
require __DIR__ . '/tracker_lib.php';
tracker_serve(function ($line, $n) {
    if ($n == tracker_arg(3))
        exit(1);
    return tracker_answer($line);
});
