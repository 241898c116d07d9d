<?php
// The line protocol of the post-call tracker, as the test stand-ins speak
// it: one request line in, one reply line out; "exit" ends the process.
// Each request a script acts on is appended to the log as "<pid> <request>"
// so that a test can count the posts and tell the processes apart. The log
// is argument 1, else tracker.log next to the script (the daemon passes no
// arguments); argument 2 is a number for the variant.

function tracker_log_path()
{
    global $argv;
    return $argv[1] ?? (__DIR__ . '/tracker.log');
}

function tracker_log($text)
{
    file_put_contents(tracker_log_path(), getmypid() . ' ' . $text . "\n", FILE_APPEND | LOCK_EX);
}

function tracker_arg($default)
{
    global $argv;
    return isset($argv[2]) ? (int)$argv[2] : $default;
}

// The normal handling of a request: logged, answered with its id.
function tracker_answer($line)
{
    tracker_log($line);
    parse_str($line, $request);
    return 'OK id=' . ($request['id'] ?? '');
}

// $handle(request, its number in this process) gives the reply line
// without its end; it may also never return.
function tracker_serve(callable $handle)
{
    $n = 0;
    while (($line = fgets(STDIN)) !== false) {
        $line = rtrim($line, "\n");
        if ($line === 'exit') {
            tracker_log('exit');
            exit(0);
        }
        fwrite(STDOUT, $handle($line, ++$n) . "\n");
        fflush(STDOUT);
    }
}
