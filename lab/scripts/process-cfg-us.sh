#!/bin/sh
# Where the gateway looks for its packages.
section=ipkFeedURL
initial='{"url":"http://127.0.0.1/feeds"}'
. "${0%/*}/section"
