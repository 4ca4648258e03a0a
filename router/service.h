// service: the router.
#pragma once
