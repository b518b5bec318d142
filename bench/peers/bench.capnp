@0xa3f1c64d8f1b2c77;

interface Bench {
    lookUp @0 (key :Text, user :Int32) -> (value :Text);
}
