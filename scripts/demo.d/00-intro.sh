# Sourced by scripts/demo.sh: $gatewise, $root, section() and run() are set.
section "The system root: every fixed path lives below \$GATEWISE_ROOT"
printf 'GATEWISE_ROOT=%s\n' "$root"
