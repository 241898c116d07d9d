<?php
// Complains on standard error about every request, a moment before it
// answers it normally.
require __DIR__ . '/tracker_lib.php';
tracker_serve(function ($line, $n) {
    fwrite(STDERR, "tracker warning: $line\n");
    usleep(200000);
    return tracker_answer($line);
});
