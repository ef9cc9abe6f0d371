#!/usr/bin/env bash
# Maven over java/, without download noise: warnings, and what the tests have to say.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
log=org.slf4j.simpleLogger
export MAVEN_OPTS="${MAVEN_OPTS:-} -D$log.defaultLogLevel=warn \
-D$log.log.org.apache.maven.plugin.surefire=info"
exec mvn --batch-mode --no-transfer-progress --strict-checksums --file "$root/java/pom.xml" "$@"
