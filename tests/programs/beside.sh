# Runs each line that is written to /tmp/beside as a command, in the background.
mkfifo /tmp/beside.new && mv /tmp/beside.new /tmp/beside
while true; do
    while read -r line; do
        eval "$line" &
    done </tmp/beside
done
